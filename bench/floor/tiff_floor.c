// The minimal cost of decoding a compressed TIFF picture: the library alone reads the strips that
// the worker's rules require, into one buffer that is reused. By these rules, a strip that is
// higher than a band of rows is read again from its start for the next band.
//
//   tiff_floor FILE     prints its private memory in kilobytes after the last row
#include <stdio.h>
#include <stdlib.h>

#include <tiffio.h>

#include "bench/floor/private_memory.h"

enum { band_rows = 2048 }; // for RGB pictures

static uint32_t lesser(uint32_t a, uint32_t b)
{
    return a < b ? a : b;
}

static void read_all_rows(TIFF* tiff)
{
    uint32_t height = 0;
    uint32_t strip_rows = 0;
    if (TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height) == 0 ||
        TIFFGetField(tiff, TIFFTAG_ROWSPERSTRIP, &strip_rows) == 0 || strip_rows == 0) {
        exit(EXIT_FAILURE);
    }
    const uint32_t max_rows = lesser(lesser(strip_rows, band_rows), height);
    unsigned char* buffer = malloc((size_t)TIFFScanlineSize(tiff) * max_rows);
    for (uint32_t row = 0; buffer != NULL && row < height; row += max_rows) {
        const tmsize_t wanted = TIFFScanlineSize(tiff) * lesser(max_rows, height - row);
        if (TIFFReadEncodedStrip(tiff, row / strip_rows, buffer, wanted) != wanted) {
            exit(EXIT_FAILURE);
        }
    }
    print_private_memory();
    free(buffer);
}

int main(int argc, char** argv)
{
    TIFF* tiff = argc == 2 ? TIFFOpen(argv[1], "r") : NULL;
    if (tiff == NULL) {
        fprintf(stderr, "usage: tiff_floor FILE\n");
        return EXIT_FAILURE;
    }
    read_all_rows(tiff);
    TIFFClose(tiff);
    return EXIT_SUCCESS;
}
