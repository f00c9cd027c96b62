// Whole files as text or bytes.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

std::string read_text(const std::filesystem::path& path); // "" when it cannot be read

// A file of tests/data, by its path below that folder or by its absolute path. Aborts the test
// program when it cannot be read.
std::vector<unsigned char> read_test_file(const std::filesystem::path& path);
