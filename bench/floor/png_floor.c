// The minimal cost of decoding a PNG picture: the library alone, with the worker's settings,
// delivers all rows, and each pass of an interlaced picture separately, into one row that is
// reused.
//
//   png_floor FILE      prints its private memory in kilobytes after the last row
#include <stdio.h>
#include <stdlib.h>

#include <png.h>

#include "bench/floor/private_memory.h"

enum { spare_bytes = 64 };

static void set_transformations(png_structp png)
{
    png_set_scale_16(png);
    png_set_strip_16(png);
    png_set_packing(png);
}

static void read_rows(png_structp png, png_bytep row, png_uint_32 rows)
{
    for (png_uint_32 y = 0; y < rows; ++y) {
        png_read_rows(png, &row, NULL, 1);
    }
}

// Without the library's interlace handling, a row of a pass contains only the pixels of that pass.
static void read_passes(png_structp png, png_bytep row, png_uint_32 height)
{
    static const png_uint_32 first_row[] = {0, 0, 4, 0, 2, 0, 1};
    static const png_uint_32 row_step[] = {8, 8, 8, 4, 4, 2, 2};
    for (int pass = 0; pass < 7; ++pass) {
        read_rows(png, row, (height + row_step[pass] - 1 - first_row[pass]) / row_step[pass]);
    }
}

static void read_all_rows(png_structp png, png_infop info)
{
    const png_uint_32 height = png_get_image_height(png, info);
    png_bytep row = malloc(4 * (size_t)png_get_image_width(png, info) + spare_bytes);
    if (row == NULL) {
        exit(EXIT_FAILURE);
    }
    if (png_get_interlace_type(png, info) == PNG_INTERLACE_NONE) {
        read_rows(png, row, height);
    } else {
        read_passes(png, row, height);
    }
    print_private_memory();
    free(row);
}

int main(int argc, char** argv)
{
    FILE* file = argc == 2 ? fopen(argv[1], "rb") : NULL;
    if (file == NULL) {
        fprintf(stderr, "usage: png_floor FILE\n");
        return EXIT_FAILURE;
    }
    // No jump is armed, so a library error ends the program.
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, NULL, NULL, NULL);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file);
    png_read_info(png, info);
    set_transformations(png);
    read_all_rows(png, info);
    png_destroy_read_struct(&png, &info, NULL);
    fclose(file);
    return EXIT_SUCCESS;
}
