#include "bin/examine/write_back.h"

#include <cstdio>

#include "bin/examine/image_state.h"
#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"

namespace {

constexpr int_rational hundredths_of_a_second = {100, 1};

void set_item_timing()
{
    vexa_video_streams = 1;
    if (image_file_type == IMAGE_GIF) {
        vexa_time_scale = hundredths_of_a_second;
        vexa_time_duration = static_cast<int64_t>(image_mapping_total);
    } else {
        vexa_time_duration = static_cast<int64_t>(image_decoded_frames);
    }
}

} // namespace

void print_examination_result()
{
    vexa_print_standard_metadata_state();
    fputs("Format specific:\n", stderr);
    fprintf(stderr, "   Image size: %d x %d\n", image_width, image_height);
}

void write_metadata_back()
{
    set_item_timing();
    meta_to_json(vexa_metadata);
    if (vexa_metadata_may_update && vexa_do_write_metadata) {
        fputs("* Writing metadata back\n", stderr);
        vexa_standard_vars_to_metadata(vexa_metadata);
        if (metadata_v4_metadata_context_write_metadata_to_file(vexa_metadata, vexa_meta, 0,
                                                                nullptr) != 0) {
            fputs("Problem writing metadata\n", stderr);
        }
    }
    metadata_v4_metadata_close_file(vexa_metadata);
}
