#include "tests/unit/examine/jpeg_failing_calls.h"

#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

namespace failing {

countdown calloc_call;
countdown malloc_call;
countdown fdopen_call;
countdown read_header_call;

void countdown::arm(int n, bool and_all_after)
{
    left = n;
    for_good = and_all_after;
    calls = 0;
}

bool countdown::fails()
{
    ++calls;
    if (left == 0) {
        return false;
    }
    if (left > 1) {
        --left;
        return false;
    }
    left = for_good ? 1 : 0;
    return true;
}

void none()
{
    calloc_call = {};
    malloc_call = {};
    fdopen_call = {};
    read_header_call = {};
}

} // namespace failing

extern "C" {

void* __real_calloc(size_t count, size_t size);
void* __real_malloc(size_t size);
FILE* __real_fdopen(int fd, const char* mode);
int __real_jpeg_read_header(j_decompress_ptr cinfo, boolean require_image);

void* __wrap_calloc(size_t count, size_t size)
{
    return failing::calloc_call.fails() ? nullptr : __real_calloc(count, size);
}

void* __wrap_malloc(size_t size)
{
    return failing::malloc_call.fails() ? nullptr : __real_malloc(size);
}

FILE* __wrap_fdopen(int fd, const char* mode)
{
    return failing::fdopen_call.fails() ? nullptr : __real_fdopen(fd, mode);
}

int __wrap_jpeg_read_header(j_decompress_ptr cinfo, boolean require_image)
{
    return failing::read_header_call.fails() ? JPEG_SUSPENDED
                                             : __real_jpeg_read_header(cinfo, require_image);
}

} // extern "C"
