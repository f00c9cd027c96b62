#include "bin/examine/gif.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/examine/webp.h"
#include "bin/vexa_stillimage.h"
#include "platform/media_item.h"

void free_all()
{
    free_all_webp();
    free_all_tiff();
    free_all_jpeg_fileio();
    free_all_png_fileio();
    free_all_gif();
    cnb_alloc_freeall();
    cnb_default_buffer_drop();
    vexa_free_all();
}
