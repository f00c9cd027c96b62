#include "platform/misc.h"

#include <array>
#include <climits>
#include <string>
#include <unistd.h>

#include "platform/standalone/base/open_descriptors.h"
#include "wire/utf8.h"

const uint8_t adam7_yo[7] = {0, 0, 4, 0, 2, 0, 1};
const uint8_t adam7_ystep[7] = {8, 8, 8, 4, 4, 2, 2};

namespace {

constexpr const char* descriptor_folder = "/proc/self/fd";

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
    for (const int fd : platform::open_descriptors()) {
        fprintf(out, "%d: %s\n", fd, descriptor_target(fd).c_str());
    }
}
