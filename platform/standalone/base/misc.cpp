#include "platform/misc.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "wire/utf8.h"

const uint8_t adam7_yo[7] = {0, 0, 4, 0, 2, 0, 1};
const uint8_t adam7_ystep[7] = {8, 8, 8, 4, 4, 2, 2};

namespace {

constexpr const char* descriptor_folder = "/proc/self/fd";

// The open descriptors in ascending order, without the one that is used for listing them.
std::vector<int> open_descriptors()
{
    std::vector<int> numbers;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(descriptor_folder), closedir);
    if (!listing) {
        return numbers;
    }
    while (const dirent* entry = readdir(listing.get())) {
        char* end = nullptr;
        const long number = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0' && number != dirfd(listing.get())) {
            numbers.push_back(static_cast<int>(number));
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::string descriptor_target(int fd)
{
    const std::string link = std::string(descriptor_folder) + '/' + std::to_string(fd);
    std::array<char, PATH_MAX> target = {};
    const ssize_t length = readlink(link.c_str(), target.data(), target.size());
    if (length < 0) {
        return "?";
    }
    return wire::printable({target.data(), static_cast<size_t>(length)});
}

} // namespace

void fd_debug_dump_open_files(FILE* out)
{
    for (const int fd : open_descriptors()) {
        fprintf(out, "%d: %s\n", fd, descriptor_target(fd).c_str());
    }
}
