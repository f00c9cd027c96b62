// File windows: a bounded look at a file's bytes.
#pragma once

#include <cstddef>
#include <cstdint>

// A window of at most `capacity` bytes over a file. `buffer` .. `end` are the bytes in view; they
// are private memory, so a reader is not affected when others truncate or change the file.
struct sliding_window_v4 {
    unsigned char* buffer; // null until the first successful lazy_lseek
    unsigned char* end;    // one past the last byte in view
    size_t capacity;
    int fd; // borrowed
};

// A window over `fd`, which stays the caller's. Null when there is no memory.
sliding_window_v4* sliding_window_v4_create_mmap(size_t window_size, int fd);

// Brings up to `length` bytes from `offset` into view. Non-zero when there is at least one byte; 0
// when nothing could be read, and the window is empty.
int sliding_window_v4_mmap_lazy_lseek(sliding_window_v4* window, uint64_t offset, size_t length);

// Frees the window (null is fine) and returns null.
sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* window);
