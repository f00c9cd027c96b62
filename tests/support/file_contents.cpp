#include "tests/support/file_contents.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

std::string read_text(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<unsigned char> read_test_file(const std::filesystem::path& path)
{
    const std::filesystem::path whole = std::filesystem::path(STILLIMAGE_TEST_DATA) / path;
    std::ifstream file(whole, std::ios::binary);
    if (!file) {
        perror(whole.c_str());
        abort();
    }
    return {std::istreambuf_iterator<char>(file), {}};
}
