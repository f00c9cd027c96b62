// The process's default buffer: where it is mapped.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// All zero while no memory of the default buffer is mapped. Written by default_buffer.cpp.
struct mapped_buffer {
    uint32_t number;
    unsigned char* base;
    uint64_t size;
    uint64_t serial; // another one for each buffer that is mapped, never 0
};
extern mapped_buffer default_mapping;

// Bytes asked for when the buffer was loaded; 0 while none is.
uint64_t default_buffer_size();

// Reserves and maps the loaded buffer, unless that is done. Empty on success, else why not.
std::string map_default_buffer();

// A description of the default buffer of its own, for a client: it cannot write, resize or remap
// the buffer for writing, and its file offset is nobody else's. The caller closes it. -1 with errno
// while nothing is allocated in the buffer.
int cnb_open_read_only_descriptor();

} // namespace platform
