// Where an item's metadata is, and how its files are accessed.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/standalone/base/file_operations.h"

namespace platform {

inline constexpr const char* metadata_file_name = "metadata";
inline constexpr const char* metadata_lock_name = "metadata.lock";

struct metadata_store {
    int folder = -1;  // the open metadata folder, borrowed
    std::string path; // of the metadata file, for messages
    uint64_t lock_limit_us = 2'000'000;
    const std::atomic<int>* stop = nullptr; // when it is not 0, waiting for the lock ends
    const file_operations* operations = &system_file_operations;
};

} // namespace platform
