// Counts the open descriptors of the test process, to find leaks.
#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

// Includes the descriptor with which the folder is read.
inline size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}
