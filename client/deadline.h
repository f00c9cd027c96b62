// When a call's time limit ends.
#pragma once

#include <chrono>
#include <optional>
#include <poll.h>

class deadline {
public:
    // `timeout_ms` from now; -1 is never, 0 at once.
    explicit deadline(int timeout_ms)
    {
        if (timeout_ms >= 0) {
            end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        }
    }

    // The rest in milliseconds, rounded up, as poll takes it; -1 without a limit.
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
