#include "platform/standalone/base/random_bytes.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/random.h>
#include <vector>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

// A fallback for kernels and containers that refuse the system call.
int read_random_device(void* data, size_t size)
{
    const unique_fd device(open_file("/dev/urandom", O_RDONLY));
    if (!device) {
        return -1;
    }
    return read_fully(device.get(), data, size) == static_cast<ssize_t>(size) ? 0 : -1;
}

} // namespace

int random_bytes(void* data, size_t size)
{
    auto* bytes = static_cast<unsigned char*>(data);
    size_t done = 0;
    while (done < size) {
        const ssize_t step = getrandom(bytes + done, size - done, 0);
        if (step < 0 && errno != EINTR) {
            return read_random_device(data, size);
        }
        if (step > 0) {
            done += static_cast<size_t>(step);
        }
    }
    return 0;
}

std::string random_hex(size_t bytes)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::vector<unsigned char> raw(bytes);
    if (random_bytes(raw.data(), raw.size()) != 0) {
        return {};
    }
    std::string text;
    for (const unsigned char byte : raw) {
        text += digits[byte >> 4U];
        text += digits[byte & 0xFU];
    }
    return text;
}

} // namespace platform
