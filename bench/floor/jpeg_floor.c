// The minimal cost of decoding a JPEG picture: the library alone, with the worker's settings,
// delivers all raw component rows into one small buffer that is reused for each row group.
//
//   jpeg_floor FILE     prints its private memory in kilobytes after the last row
//
// Linked to its own libjpeg 9, built with plain -O2 (bench/floor/setup).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <jpeglib.h>

#include "bench/floor/private_memory.h"

enum { max_rows = 64, max_components = 4 };

// Raw rows of the picture's own components, as the worker requests them: no colour conversion, no
// upsampling.
static void choose_settings(struct jpeg_decompress_struct* cinfo)
{
    cinfo->out_color_space = cinfo->jpeg_color_space;
    cinfo->raw_data_out = TRUE;
    cinfo->do_fancy_upsampling = FALSE;
}

static void read_all_rows(struct jpeg_decompress_struct* cinfo)
{
    static JSAMPROW rows[max_components][max_rows];
    JSAMPARRAY components[max_components];
    const size_t width = (size_t)cinfo->output_width + 64;
    for (int i = 0; i < max_components; ++i) {
        components[i] = rows[i];
        for (int y = 0; y < max_rows; ++y) {
            rows[i][y] = y < 16 ? malloc(width) : rows[i][y % 16];
        }
    }
    while (cinfo->output_scanline < cinfo->output_height) {
        if (jpeg_read_raw_data(cinfo, components, max_rows) == 0) {
            exit(EXIT_FAILURE);
        }
    }
}

int main(int argc, char** argv)
{
    struct jpeg_decompress_struct cinfo;
    struct jpeg_error_mgr errors;
    FILE* file = argc == 2 ? fopen(argv[1], "rb") : NULL;
    if (file == NULL) {
        fprintf(stderr, "usage: jpeg_floor FILE\n");
        return EXIT_FAILURE;
    }
    memset(&cinfo, 0, sizeof(cinfo));
    cinfo.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, file);
    jpeg_read_header(&cinfo, TRUE);
    choose_settings(&cinfo);
    jpeg_start_decompress(&cinfo);
    read_all_rows(&cinfo);
    print_private_memory();
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return EXIT_SUCCESS;
}
