// Where a file goes that is made piece by piece. Plain data: it is used below a codec that jumps.
#pragma once

#include <cstddef>
#include <cstdint>

struct byte_sink {
    int fd = -1; // -1: into memory

    uint8_t* bytes = nullptr; // from malloc
    size_t size = 0;
    size_t room = 0;
    int error = 0; // errno of what failed
};

// Takes the piece in. False when that is not possible; `error` says why. A pipe without a reader is an
// error and no signal.
bool put_bytes(byte_sink& sink, const uint8_t* bytes, size_t size);
