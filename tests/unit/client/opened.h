// A test's connection to a worker, closed when it goes out of scope.
#pragma once

#include <string>

#include "client/stillimage_client.h"

inline constexpr int patience_ms = 30'000; // never reached when the test passes
inline constexpr int silence_ms = 50;      // for workers that never answer

struct opened {
    explicit opened(const std::string& path, int timeout_ms = patience_ms)
        : result(stillimage_connect(path.c_str(), timeout_ms, &client))
    {
    }
    opened(const opened&) = delete;
    opened& operator=(const opened&) = delete;
    ~opened() { stillimage_close(client); }

    stillimage_result get(stillimage_frame** frame, int timeout_ms = patience_ms) const
    {
        return stillimage_get_frame(client, 0, 0, 0, timeout_ms, frame);
    }
    std::string error() const { return stillimage_last_error(client); }

    stillimage_client* client = nullptr;
    stillimage_result result;
};
