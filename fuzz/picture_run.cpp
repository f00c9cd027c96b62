#include "fuzz/picture_run.h"

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/framebuffer/records.h"
#include "platform/cnb.h"
#include "platform/run_state.h"
#include "tests/support/scripted_platform.h"

void reset_everything()
{
    reset_image_state();
    reset_layout();
    reset_mipmaps();
    scripted::reset();
}

void set_input(const uint8_t* data, size_t size, int signal_rounds)
{
    if (size != 0 && data[size - 1] < signal_rounds) {
        scripted::plan.die_after_idle = data[size - 1];
    }
    scripted::set_picture(data, size);
    vexa_acc_cache = vexa_global_access_cache_create();
}

void lay_out()
{
    layout_full_size();
    layout_mipmaps();
}

void allocate_buffer()
{
    require(cnb_default_buffer_load() == 0);
    require(cnb_malloc(&image_cnb_alloc, image_decoded_size, "Image"));
    require(build_picture_records() == 0);
}

void build_mipmaps()
{
    if (DIE4 == 0) {
        if (mipmaps_avail == 0) {
            generate_all_mipmaps();
        }
        require(mipmaps_avail == mipmaps);
    }
}
