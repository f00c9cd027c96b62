// Short texts that the kernel offers as files.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

// The whole text, at most 1 MiB of it; empty when it cannot be read.
std::string read_small_file(const std::string& path);

// The decimal number that `text` begins with, or `otherwise` when it begins with none.
uint64_t leading_number(std::string_view text, uint64_t otherwise);

// The number behind `key` and white space at the beginning of a line, as in "MemAvailable:   1024
// kB"; `otherwise` when there is no such line.
uint64_t number_of_line(std::string_view text, std::string_view key, uint64_t otherwise);

} // namespace platform
