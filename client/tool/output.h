// Where results go: standard output, or files that are there whole or not at all.
#pragma once

#include <string>
#include <string_view>

// Writes text to standard output. False when it could not be written, which is told.
bool print_text(std::string_view text);

// Whether standard output is no terminal. When it is one, that is told.
bool output_takes_bytes();

// Writes `bytes` to the file `path` under a temporary name and renames it; "-" is standard output,
// which is refused when it is a terminal. False when it could not be done, which is told.
bool write_result(const std::string& path, std::string_view bytes);

// Makes the folder unless it is there. False when it cannot be, which is told.
bool make_folder(const std::string& path);
