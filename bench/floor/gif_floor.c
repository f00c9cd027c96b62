// The minimal cost of decoding a GIF animation: the library alone delivers the indices of all
// frames into one row that is reused.
//
//   gif_floor FILE      prints its private memory in kilobytes after the last row
#include <stdio.h>
#include <stdlib.h>

#include <gif_lib.h>

#include "bench/floor/private_memory.h"

enum { max_width = 65535 };

static void require(int result)
{
    if (result != GIF_OK) {
        fprintf(stderr, "gif_floor: damaged file\n");
        exit(EXIT_FAILURE);
    }
}

static void read_frame(GifFileType* gif)
{
    static GifPixelType row[max_width];
    require(DGifGetImageDesc(gif));
    for (int y = 0; y < gif->Image.Height; ++y) {
        require(DGifGetLine(gif, row, gif->Image.Width));
    }
}

static void skip_extension(GifFileType* gif)
{
    int code = 0;
    GifByteType* data = NULL;
    require(DGifGetExtension(gif, &code, &data));
    while (data != NULL) {
        require(DGifGetExtensionNext(gif, &data));
    }
}

static void read_all_frames(GifFileType* gif)
{
    GifRecordType kind = UNDEFINED_RECORD_TYPE;
    while (kind != TERMINATE_RECORD_TYPE) {
        require(DGifGetRecordType(gif, &kind));
        if (kind == IMAGE_DESC_RECORD_TYPE) {
            read_frame(gif);
        } else if (kind == EXTENSION_RECORD_TYPE) {
            skip_extension(gif);
        }
    }
}

int main(int argc, char** argv)
{
    GifFileType* gif = argc == 2 ? DGifOpenFileName(argv[1], NULL) : NULL;
    if (gif == NULL) {
        fprintf(stderr, "usage: gif_floor FILE\n");
        return EXIT_FAILURE;
    }
    read_all_frames(gif);
    print_private_memory();
    DGifCloseFile(gif, NULL);
    return EXIT_SUCCESS;
}
