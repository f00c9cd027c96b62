// The process's default buffer: where it is mapped, and the descriptor that clients get.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// All zero while no memory of the default buffer is mapped. Written by default_buffer.cpp.
struct mapped_buffer {
    uint32_t number;
    unsigned char* base;
    uint64_t size;
    uint64_t serial; // different for each mapped buffer, never 0
};
extern mapped_buffer default_mapping;

// Bytes requested when the buffer was loaded; 0 while none is loaded.
uint64_t default_buffer_size();

// Creates the memory file of the buffer, empty, unless that has been done. 0, or -1 with errno.
int create_default_buffer();

// Reserves and maps the loaded buffer, unless that has been done. Empty on success, otherwise the
// reason.
std::string map_default_buffer();

// Opens the default buffer for a client, as a description of its own: the client cannot write to
// the buffer, resize it or map it for writing, and shares no file offset. The caller closes the
// descriptor. -1 with errno while nothing is allocated in the buffer.
int cnb_open_read_only_descriptor();

} // namespace platform
