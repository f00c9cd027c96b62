// The optimised PNG row loop against a plain version of the rules: the whole frame buffer, byte for
// byte.
#include <filesystem>
#include <malloc.h>
#include <random>

#include "bin/decode/png.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "platform/run_state.h"
#include "tests/support/file_contents.h"
#include "tests/support/png_literal.h"
#include "tests/unit/decode/png_fixture.h"

namespace png_tests {
namespace {

constexpr unsigned char sentinel = 0xA5;

std::string name_of(const png_spec& spec)
{
    return std::to_string(spec.width) + "x" + std::to_string(spec.height) + " colour type " +
           std::to_string(spec.colour_type) + ", " + std::to_string(spec.depth) + " bits";
}

class PngRows : public Fixture {
protected:
    void expect_drawn_over_anything(const bytes& file, const std::string& name)
    {
        expect_drawn_by_rules(file, name, sentinel);
        EXPECT_EQ(printed, "") << name;
        expect_drawn_by_rules(file, name);
        EXPECT_EQ(printed, "") << name;
    }
};

TEST_F(PngRows, EveryWidthIsDrawnByTheRules)
{
    for (const model& m : models) {
        for (const uint8_t depth : m.depths) {
            for (uint32_t width = 1; width <= 36; ++width) {
                const png_spec spec = random_picture(width, 5, m.colour_type, depth, width);
                expect_drawn_over_anything(write_png(spec), name_of(spec));
            }
        }
    }
}

TEST_F(PngRows, EveryBatchBoundaryIsDrawnByTheRules)
{
    for (const model& m : models) {
        for (const uint8_t depth : m.depths) {
            for (const uint32_t height :
                 {1U, 3U, 4U, 63U, 64U, 65U, 68U, 127U, 128U, 129U, 192U, 257U}) {
                const png_spec spec = random_picture(17, height, m.colour_type, depth, height);
                expect_drawn_over_anything(write_png(spec), name_of(spec));
            }
        }
    }
}

TEST_F(PngRows, WidePicturesAreDrawnByTheRules)
{
    for (const model& m : models) {
        for (const uint32_t width : {255U, 1024U, 1031U, 16383U, 16384U}) {
            const png_spec spec = random_picture(width, 6, m.colour_type, m.depths.back(), width);
            expect_drawn_over_anything(write_png(spec), name_of(spec));
        }
    }
}

TEST_F(PngRows, ImageDataInManyChunksIsDrawnByTheRules)
{
    for (const model& m : models) {
        const png_spec spec = random_picture(40, 70, m.colour_type, 8);
        expect_drawn_over_anything(write_in_pieces(spec, 1), name_of(spec));
        expect_drawn_over_anything(write_in_pieces(spec, 97), name_of(spec));
    }
}

TEST_F(PngRows, TestPicturesAreDrawnByTheRules)
{
    size_t seen = 0;
    for (const auto& entry : std::filesystem::directory_iterator(STILLIMAGE_TEST_DATA "/png")) {
        const bytes file = read_test_file(entry.path());
        start_over();
        scripted::set_picture(file);
        testing::internal::CaptureStderr();
        const bool is_ours = examine_png_file() == 0 && png_interlace_method == 0;
        testing::internal::GetCapturedStderr();
        if (is_ours) {
            expect_drawn_by_rules(file, entry.path(), sentinel);
            expect_drawn_by_rules(file, entry.path());
            ++seen;
        }
    }
    EXPECT_GE(seen, 20U);
}

TEST_F(PngRows, OldMemoryContentsAreNeverDrawn)
{
    for (const model& m : models) {
        for (const uint8_t depth : m.depths) {
            const bytes file = write_png(random_picture(17, 70, m.colour_type, depth));
            bytes drawn[2];
            for (const int fill : {1, 2}) {
                start_over();
                mallopt(M_PERTURB, fill * 0x55);
                open(file);
                EXPECT_EQ(decode(), 0);
                drawn[fill - 1] = allocation();
            }
            mallopt(M_PERTURB, 0);
            EXPECT_TRUE(drawn[0] == drawn[1]) << m.name << " " << unsigned{depth};
        }
    }
}

TEST_F(PngRows, PaddingHasTheColourOfZeroSamples)
{
    png_spec spec = random_picture(17, 2, 3, 8);
    spec.chunks[0].data = {255, 0, 0};
    open(write_png(spec), sentinel);
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(scripted::buffer()[image_offset_Y + 31], 81);
    EXPECT_EQ(scripted::buffer()[image_offset_U + 31], 90);
    EXPECT_EQ(scripted::buffer()[image_offset_V + 31], 239);
    start_over();
    open(write_png(random_picture(17, 2, 6, 8)), sentinel);
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(scripted::buffer()[image_offset_Y + 31], 16);
    EXPECT_EQ(scripted::buffer()[image_offset_A + 31], 0);
}

TEST_F(PngRows, RowsBelowThePictureAreUnchanged)
{
    for (const model& m : models) {
        start_over();
        open(write_png(random_picture(16, 1, m.colour_type, 8)), sentinel);
        ASSERT_EQ(decode(), 0);
        EXPECT_EQ(scripted::buffer()[image_offset_Y + 16], sentinel) << m.name;
        EXPECT_NE(scripted::buffer()[image_offset_Y + 15], sentinel) << m.name;
    }
}

// --- progress, signals, mappings ----------------------------------------------------------------

TEST_F(PngRows, ProgressIsReportedOnceABatch)
{
    for (const model& m : models) {
        start_over();
        open(write_png(random_picture(3, 300, m.colour_type, 8)));
        ASSERT_EQ(decode(), 0);
        std::vector<scripted::status_line> expected;
        for (size_t row = 0; row < 300; row += png_batch_rows(m.colour_type)) {
            expected.push_back({static_cast<int>(row * 100 / 300), "Decoding PNG"});
        }
        expected.push_back({100, ""});
        EXPECT_EQ(scripted::log.status, expected) << m.name;
        EXPECT_EQ(scripted::log.idle_rounds, expected.size() - 1) << m.name;
        EXPECT_EQ(scripted::log.mappings, (expected.size() - 1) * m.planes.size()) << m.name;
    }
}

TEST_F(PngRows, HeightOf65IsTwoBatchesButOneForGrey)
{
    for (const model& m : models) {
        start_over();
        open(write_png(random_picture(3, 65, m.colour_type, 8)));
        ASSERT_EQ(decode(), 0);
        std::vector<scripted::status_line> expected = {{0, "Decoding PNG"}};
        if (m.colour_type != 0) {
            expected.push_back({98, "Decoding PNG"});
        }
        expected.push_back({100, ""});
        EXPECT_EQ(scripted::log.status, expected) << m.name;
    }
}

TEST_F(PngRows, SignalEndsDecodingAfterTheCurrentBatch)
{
    for (const model& m : models) {
        const bytes file = write_png(random_picture(33, 400, m.colour_type, 8));
        for (const size_t batches : {1U, 2U, 3U}) {
            start_over();
            open(file, sentinel);
            scripted::plan.die_after_idle = static_cast<int>(batches);
            EXPECT_EQ(decode(), 0);
            EXPECT_EQ(printed, "");
            EXPECT_EQ(scripted::log.status.size(), batches + 1);
            EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
            EXPECT_TRUE(allocation() ==
                        draw_png_literally(file, {.batches = batches, .before = sentinel}))
                << m.name << " " << batches;
        }
    }
}

TEST_F(PngRows, SignalBeforeTheFirstBatchDrawsNothing)
{
    for (const model& m : models) {
        start_over();
        open(write_png(random_picture(33, 40, m.colour_type, 8)), sentinel);
        DIE4 = 1;
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(printed, "");
        EXPECT_EQ(scripted::log.status, (std::vector<scripted::status_line>{{100, ""}}));
        EXPECT_TRUE(allocation() == bytes(image_decoded_size, sentinel)) << m.name;
    }
}

TEST_F(PngRows, MappingFailureEndsDecodingAndNamesThePlane)
{
    for (const model& m : models) {
        const bytes file = write_png(random_picture(33, 200, m.colour_type, 8));
        for (const size_t batches : {0U, 1U}) {
            for (size_t plane = 0; plane < m.planes.size(); ++plane) {
                start_over();
                open(file, sentinel);
                scripted::plan.fail_mapping =
                    static_cast<int>(batches * m.planes.size() + plane + 1);
                EXPECT_EQ(decode(), 0);
                EXPECT_EQ(printed, "Failed to memory-map " + m.planes[plane] + " plane\n");
                EXPECT_EQ(scripted::log.status.size(), batches + 2);
                EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
                EXPECT_NE(png_context, nullptr);
                EXPECT_TRUE(allocation() ==
                            draw_png_literally(file, {.batches = batches, .before = sentinel}))
                    << m.name << " " << batches << " " << m.planes[plane];
            }
        }
    }
}

} // namespace
} // namespace png_tests
