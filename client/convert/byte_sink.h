// The destination of a file that is written piece by piece. Plain data, since it is used below
// libpng, which reports errors by longjmp.
#pragma once

#include <cstddef>
#include <cstdint>

struct byte_sink {
    int fd = -1; // -1: write to memory

    uint8_t* bytes = nullptr; // from malloc
    size_t size = 0;
    size_t room = 0;
    int error = 0; // errno of a failure
};

// Appends the bytes. On failure returns false and sets `error`. A pipe without a reader is a
// failure and raises no signal.
bool put_bytes(byte_sink& sink, const uint8_t* bytes, size_t size);
