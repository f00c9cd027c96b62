// A window is filled with pread into private memory. A mapping would show later changes of the file
// and raise SIGBUS when the file is truncated.

#include "platform/io.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "platform/standalone/base/fd_io.h"

namespace {

// The private part: the memory that bytes are read into.
struct window_with_memory : sliding_window_v4 {
    unsigned char* memory;
};

// The number of bytes read from `offset`: up to `size`, the end of the file or the first error. An
// impossible offset is an error.
size_t read_what_is_there(int fd, unsigned char* memory, size_t size, uint64_t offset)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t step = platform::pread_some(fd, memory + done, size - done, offset + done);
        if (step <= 0) {
            break;
        }
        done += static_cast<size_t>(step);
    }
    return done;
}

} // namespace

sliding_window_v4* sliding_window_v4_create_mmap(size_t window_size, int fd)
{
    // The memory is not touched before it is needed, so a small file uses only as many pages as it
    // has.
    auto* memory = static_cast<unsigned char*>(malloc(std::max<size_t>(window_size, 1)));
    if (memory == nullptr) {
        return nullptr;
    }
    auto* window = new (std::nothrow) window_with_memory{
        {.buffer = nullptr, .end = nullptr, .capacity = window_size, .fd = fd}, memory};
    if (window == nullptr) {
        free(memory);
    }
    return window;
}

int sliding_window_v4_mmap_lazy_lseek(sliding_window_v4* window, uint64_t offset, size_t length)
{
    unsigned char* memory = static_cast<window_with_memory*>(window)->memory;
    const size_t wanted = std::min(length, window->capacity);
    const size_t in_view = read_what_is_there(window->fd, memory, wanted, offset);
    window->buffer = in_view > 0 ? memory : nullptr;
    window->end = in_view > 0 ? memory + in_view : nullptr;
    return in_view > 0 ? 1 : 0;
}

sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* window)
{
    if (window != nullptr) {
        auto* whole = static_cast<window_with_memory*>(window);
        free(whole->memory);
        delete whole;
    }
    return nullptr;
}
