// Reads the picture's file on behalf of a codec library.
//
// Each reader keeps one picture_input while its file is open and reads every byte with
// read_picture. It may seek with lseek:
//
//     picture_input input = open_picture_input(fd);
//     const size_t got = read_picture(&input, bytes, wanted); // got < wanted: the file ends here
//
// Interrupted and partial reads are continued. A read error (of a disk or a network, say) is
// reported once, with the system's reason. From then on the file ends at the place of the error, so
// a codec sees nothing worse than a truncated file.
#pragma once

#include <cstddef>
#include <cstdint>

struct picture_input {
    int fd;           // borrowed
    uint64_t ends_at; // file offset of the read error; UINT64_MAX without one
};

// An input for `fd`, which remains the caller's.
picture_input open_picture_input(int fd);

// Reads from the descriptor's current position. Returns the number of bytes read: `size`, or fewer
// when the file ends or cannot be read further. It has no other result, calls nothing back and
// never jumps.
size_t read_picture(picture_input* input, void* to, size_t size);
