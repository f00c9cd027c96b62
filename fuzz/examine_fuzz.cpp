// A complete examination. The first byte selects the type that the metadata names, the rest is the
// picture. The picture is refused, or the image state is valid for the layout of a frame buffer. No
// file stays open.

#include <cstdint>
#include <vector>

#include "bin/examine/examine_file.h"
#include "bin/examine/formats.h"
#include "bin/examine/image_state.h"
#include "fuzz/require.h"
#include "platform/settings.h"
#include "tests/support/failing_calls.h"
#include "tests/support/scripted_platform.h"

namespace {

constexpr size_t memory_limit = 64U << 20; // limits the size that a GIF frame can claim

void check_image_state()
{
    require(find_format(image_file_type) != nullptr);
    require(image_width > 0 && image_height > 0);
    require(image_buffer_height >= image_height && image_buffer_height < image_height + 32);
    require(image_chroma_x_shift <= 2 && image_chroma_y_shift <= 2);
    require(image_decoded_frames >= 1 && image_mapping_total >= 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    scripted::reset();
    reset_image_state();
    failing_calls::plan = {};
    failing_calls::plan.max_calloc = memory_limit;
    scripted::set_picture(data + 1, size - 1);
    const picture_format* named = find_format(data[0] % (max_image_type + 1));
    vexa_set_string(&vexa_file_type, named != nullptr ? named->mime : nullptr);
    if (examine_file() == 0) {
        check_image_state();
    }
    free_all_readers();
    free_all_readers();
    scripted::reset();
    return 0;
}
