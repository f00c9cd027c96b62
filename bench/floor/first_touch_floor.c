// Measures the cost of fresh shared memory: writes BYTES of it once, in bands, in the cheapest
// known way: reserved first, then populated piece by piece just ahead of the writer. FILE is in
// memory and is not removed here, so releasing the memory is not measured.
//
//   first_touch_floor FILE BYTES
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

static const size_t band = 192000;     // 32 rows of 6000 bytes
static const size_t piece = 256 << 10; // bytes populated at a time

static size_t lesser(size_t a, size_t b)
{
    return a < b ? a : b;
}

static void write_all(unsigned char* memory, size_t size)
{
    size_t present = 0;
    for (size_t at = 0; at < size; at += band) {
        const size_t length = lesser(band, size - at);
        while (present < at + length) {
            madvise(memory + present, lesser(piece, size - present), MADV_POPULATE_WRITE);
            present += piece;
        }
        memset(memory + at, (int)(at >> 12), length);
    }
}

int main(int argc, char** argv)
{
    const int fd = argc == 3 ? open(argv[1], O_RDWR | O_CLOEXEC) : -1;
    const size_t size = argc == 3 ? strtoull(argv[2], NULL, 10) : 0;
    if (fd < 0 || size == 0 || fallocate(fd, 0, 0, (off_t)size) != 0) {
        fprintf(stderr, "usage: first_touch_floor FILE BYTES\n");
        return EXIT_FAILURE;
    }
    unsigned char* memory = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        perror("mmap");
        return EXIT_FAILURE;
    }
    write_all(memory, size);
    return EXIT_SUCCESS;
}
