#include "bin/examine/formats.h"
#include "bin/vexa_stillimage.h"
#include "platform/media_item.h"

void free_all()
{
    free_all_readers();
    cnb_alloc_freeall();
    cnb_default_buffer_drop();
    vexa_free_all();
}
