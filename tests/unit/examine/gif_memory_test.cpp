// How much memory a GIF frame takes besides its raster, in a file with very many frames.
#include <malloc.h>

#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "tests/support/gif_writer.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

constexpr unsigned frames = 20'000;

// Frames of one pixel with as much as is kept of a frame: the largest colour map, and two of the
// graphic-control blocks, one of which has transparency. There are more blocks than are kept.
std::vector<unsigned char> file_of_rich_frames()
{
    constexpr unsigned char graphic_control = 0xF9;
    std::vector<unsigned char> file = gif_start({});
    for (unsigned i = 0; i < frames; ++i) {
        for (unsigned char block = 0; block < 16; ++block) {
            const auto has_transparency = static_cast<unsigned char>(block % 2 == 0 ? 1 : 0);
            append_gif_extension(file, graphic_control, {{has_transparency, 4, 0, 0}});
        }
        append_gif_frame(file, {.palette = std::vector<gif_colour>(256), .indices = {1}});
    }
    file.push_back(0x3B);
    return file;
}

class GifMemory : public ExamineFixture {};

TEST_F(GifMemory, FrameTakesLessThanOneAndAHalfKibibytesBesidesItsRaster)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer has an allocator of its own";
#endif
    scripted::set_picture(file_of_rich_frames());
    const struct mallinfo2 before = mallinfo2();
    ASSERT_EQ(examine_gif_file(), 0);
    const struct mallinfo2 after = mallinfo2();
    EXPECT_EQ(image_decoded_frames, frames);
    EXPECT_EQ(gif_image->ImageCount, static_cast<int>(frames));
    const size_t taken = (after.uordblks + after.hblkhd) - (before.uordblks + before.hblkhd);
    EXPECT_GT(taken, size_t{frames} * 256 * 3); // this includes the colour maps
    EXPECT_LT(taken, size_t{frames} * 1536);
}

} // namespace
