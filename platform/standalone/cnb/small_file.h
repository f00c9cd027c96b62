// Reading short texts that the kernel provides as files.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

// The whole text, at most 1 MiB of it; empty when it cannot be read.
std::string read_small_file(const std::string& path);

// The decimal number at the start of `text`, or `otherwise` when there is none.
uint64_t leading_number(std::string_view text, uint64_t otherwise);

// The number after `key` and white space at the start of a line, as in "MemAvailable:   1024 kB";
// `otherwise` when there is no such line.
uint64_t number_of_line(std::string_view text, std::string_view key, uint64_t otherwise);

} // namespace platform
