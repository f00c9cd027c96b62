// Reading the picture's file on behalf of a codec library.
//
// Each reader keeps a picture_input for as long as its file is open, and takes every byte through
// read_picture, seeking with lseek as it likes:
//
//     picture_input input = open_picture_input(fd);
//     const size_t got = read_picture(&input, bytes, wanted); // got < wanted: the file ends here
//
// A read that a signal interrupts, or that gives a part only, goes on. An error of the disk or the
// network is told once, with the system's reason; from its place on the file counts as ended, for
// later reads, too, so that a codec meets nothing but a file that was cut.
#pragma once

#include <cstddef>
#include <cstdint>

struct picture_input {
    int fd;           // borrowed
    uint64_t ends_at; // where reading failed, a file offset; UINT64_MAX before that
};

// An input on `fd`, which stays the caller's.
picture_input open_picture_input(int fd);

// Reads from the descriptor's place on. The number of bytes read: `size`, or fewer when the file
// ends or cannot be read any further. Has no way to fail, calls nothing back and never jumps.
size_t read_picture(picture_input* input, void* to, size_t size);
