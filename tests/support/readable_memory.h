// Whether memory can be read, without a signal when it cannot.
#pragma once

#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>

// The kernel copies every byte of the range; it reports a page that has nothing behind it as an
// error, where a read by the program itself would end the program by SIGBUS or SIGSEGV.
inline bool is_readable(const void* first, size_t size)
{
    const int copy = memfd_create("copy", MFD_CLOEXEC);
    const auto* bytes = static_cast<const unsigned char*>(first);
    size_t done = 0;
    while (done < size) {
        const ssize_t written = write(copy, bytes + done, size - done);
        if (written <= 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
    close(copy);
    return copy >= 0 && done == size;
}
