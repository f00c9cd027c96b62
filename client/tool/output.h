// Results: standard output, and files that are either complete or absent. A function that returns
// false has printed the reason to standard error.
#pragma once

#include <string>
#include <string_view>

// Writes text to standard output.
bool print_text(std::string_view text);

// Writes text of the worker and a line break to standard output. On a terminal it is one line, with
// control characters and invalid bytes as \xHH; a file or a program gets every byte as it is.
bool print_line(const std::string& text);

// Checks that standard output is not a terminal.
bool output_takes_bytes();

// Writes `bytes` under a temporary name and renames it to `path`. Devices and pipes are written
// directly; "-" is standard output, unless that is a terminal.
bool write_result(const std::string& path, std::string_view bytes);

// Whether the path ends in `ending`, such as ".png", in capitals or not.
bool ends_in(std::string_view path, std::string_view ending);

// Creates the folder unless it exists.
bool make_folder(const std::string& path);
