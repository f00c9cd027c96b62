// Counts what the test process has open, to find leaks.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// Includes the descriptor with which the folder is read.
inline size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// Mappings of buffers only: a sanitizer makes and removes mappings of its own.
inline size_t mappings_of_memory_files()
{
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.find("/memfd:") != std::string::npos ? 1 : 0;
    }
    return count;
}
