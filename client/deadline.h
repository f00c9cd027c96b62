// The end of a call's time limit.
#pragma once

#include <chrono>
#include <optional>
#include <poll.h>

class deadline {
public:
    // Milliseconds from now: -1 never, 0 at once.
    explicit deadline(int timeout_ms)
    {
        if (timeout_ms >= 0) {
            end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        }
    }

    // For poll: -1 without end, else the whole milliseconds left, rounded up.
    int left_ms() const
    {
        if (!end) {
            return -1;
        }
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(*end - std::chrono::steady_clock::now());
        return left.count() > 0 ? static_cast<int>(left.count()) : 0;
    }

    bool passed() const { return end && std::chrono::steady_clock::now() >= *end; }

private:
    std::optional<std::chrono::steady_clock::time_point> end;
};
