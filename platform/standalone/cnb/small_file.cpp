#include "platform/standalone/cnb/small_file.h"

#include <charconv>
#include <fcntl.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

constexpr size_t max_bytes = size_t{1} << 20;
constexpr size_t first_read = 4096;

} // namespace

std::string read_small_file(const std::string& path)
{
    const unique_fd fd(open_file(path.c_str(), O_RDONLY));
    std::string text;
    // The sizes of files in /proc and /sys mean nothing.
    for (size_t wanted = first_read; fd && text.size() < max_bytes; wanted = text.size()) {
        const size_t before = text.size();
        text.resize(before + wanted);
        const ssize_t got = read_fully(fd.get(), text.data() + before, wanted);
        text.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
        if (text.size() < before + wanted) {
            break;
        }
    }
    return text;
}

uint64_t leading_number(std::string_view text, uint64_t otherwise)
{
    uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() ? number : otherwise;
}

uint64_t number_of_line(std::string_view text, std::string_view key, uint64_t otherwise)
{
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
        const size_t number = line.find_first_not_of(" \t", key.size());
        if (line.starts_with(key) && number != key.size() && number != std::string_view::npos) {
            return leading_number(line.substr(number), otherwise);
        }
    }
    return otherwise;
}

} // namespace platform
