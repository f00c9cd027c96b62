// Interlaced pictures whose decode ends early: damaged files, failing calls, stop requests and
// broken invariants.
#include <csignal>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/decode/png_adam7.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/examine/reading_watch.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "platform/cnb.h"
#include "platform/run_state.h"
#include "tests/unit/decode/adam7_fixture.h"

using namespace adam7_tests;
using scripted::status_line;

namespace {

using DecodePngAdam7Damage = Fixture;

// For a picture of 17 x 17: the index of each pass's first row among the rows of all passes.
constexpr uint64_t first_rows[] = {0, 3, 6, 8, 13, 17, 26};
constexpr uint64_t all_rows = 34;

size_t image_data_of(const bytes& file)
{
    const std::string_view text(reinterpret_cast<const char*>(file.data()), file.size());
    return text.find("IDAT") + 4;
}

bytes first_bytes(const bytes& file, size_t count)
{
    return {file.begin(), file.begin() + static_cast<std::ptrdiff_t>(count)};
}

size_t count_of(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST_F(DecodePngAdam7Damage, TruncatedFilesAreDrawnUpToTheirEnd)
{
    for (const colour_form form : {colour_form{6, 8}, {0, 1}, {3, 8}, {4, 16}, {2, 8}}) {
        const bytes file = write_png(random_picture(40, 30, form));
        for (size_t size = image_data_of(file); size <= file.size(); size += 5) {
            SCOPED_TRACE(size);
            expect_drawn_by_rules(first_bytes(file, size), 90);
        }
    }
}

TEST_F(DecodePngAdam7Damage, ImageDataThatEndsEarlyIsDrawnUpToEachRow)
{
    const png_spec spec = random_picture(17, 17, {2, 8});
    for (size_t size = 0; size <= spec.rows.size(); size += 3) {
        SCOPED_TRACE(size);
        png_spec shorter = spec;
        shorter.rows.resize(size);
        expect_drawn_by_rules(write_png(shorter), 90);
    }
}

TEST_F(DecodePngAdam7Damage, ChangedBytesAreDrawnUpToTheDamage)
{
    const bytes file = write_png(random_picture(33, 18, {6, 8}));
    for (size_t at = image_data_of(file); at + 16 < file.size(); at += 3) {
        SCOPED_TRACE(at);
        bytes changed = file;
        changed[at] ^= 0x41;
        expect_drawn_by_rules(changed, 90);
    }
}

TEST_F(DecodePngAdam7Damage, ErrorInTheFirstPassAnnouncesNothing)
{
    png_spec spec = rgba_picture(64, 64, 0, 0);
    spec.rows.resize(3 * (1 + 8 * 4));
    open(write_png(spec), 90, true);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(printed, "PNG ERROR: Not enough image data\nlibpng error: Not enough image data\n"
                       "Unexpected PNG error while reading, aborting decode\n");
    EXPECT_TRUE(scripted::log.ready.empty());
    EXPECT_EQ(count_calls("vexa_global_access_cache_cleanup_idle"), 0U);
    EXPECT_EQ(mipmaps_avail, 0);
    EXPECT_EQ(scripted::log.status.back(), (status_line{100, ""}));
    EXPECT_EQ(plane(3)[23 * 64], 0);      // painted
    EXPECT_EQ(plane(0)[31 * 64 + 9], 16); // the failing band: black and transparent
    EXPECT_EQ(plane(3)[31 * 64 + 9], 0);
    EXPECT_EQ(plane(0)[32 * 64], 90); // below the band
}

TEST_F(DecodePngAdam7Damage, ErrorInALaterPassLeavesTheLevelsOfTheLastRebuild)
{
    png_spec spec = rgba_picture(64, 64, 0, 0);
    spec.rows.resize(10 * (1 + 8 * 4)); // ends after two rows of the second pass
    open(write_png(spec), 0, true);
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.ready, (std::vector<status_line>{{-1, "Provisional image ready"}}));
    EXPECT_EQ(count_calls("vexa_global_access_cache_cleanup_idle"), 1U);
    EXPECT_EQ(count_of(printed, "Generating mipmap 32 x 32\n"), 1U);
    EXPECT_EQ(mipmaps_avail, 1);
}

TEST_F(DecodePngAdam7Damage, UnmappablePlaneEndsOnlyItsPass)
{
    struct drawing {
        colour_form form;
        std::string planes;
    };
    for (const drawing& d : {drawing{{6, 8}, "YUVA"},
                             {{2, 8}, "YUV"},
                             {{0, 8}, "Y"},
                             {{4, 8}, "YA"},
                             {{3, 8}, "YUV"}}) {
        const bytes file = write_png(random_picture(17, 17, d.form));
        for (uint64_t failing = 0; failing < all_rows; ++failing) {
            for (size_t i = 0; i < d.planes.size(); ++i) {
                SCOPED_TRACE(failing);
                bool failed = false;
                expect_drawn_by_rules(file, 90, [&](uint64_t, adam7_literal& literal) {
                    if (!failed && literal.rows_drawn() == failing) {
                        failed = true;
                        scripted::plan.fail_mapping = static_cast<int>(i) + 1;
                        literal.leave_pass();
                    }
                });
                const std::string line =
                    std::string("Failed to memory-map ") + d.planes[i] + " plane\n";
                EXPECT_EQ(count_of(printed, line), 1U);
                EXPECT_EQ(count_of(printed, "Failed to memory-map"), 1U);
                EXPECT_EQ(count_calls("vexa_global_access_cache_cleanup_idle"), 7U);
                EXPECT_EQ(scripted::log.ready.size(), 1U);
            }
        }
    }
}

// The band of 8 rows mapped for a row of the pass. It starts above that row in two passes, and
// never ends below the plane.
struct band_of_pass {
    int first_row, row_step, rows_above;
};

constexpr band_of_pass bands[] = {{0, 8, 0}, {0, 8, 0}, {4, 8, 4}, {0, 4, 0},
                                  {2, 4, 2}, {0, 2, 0}, {1, 2, 0}};

// The status lines while no band that contains row `bad` of a 32 x 32 picture can be mapped.
std::vector<status_line> status_without_row(int bad)
{
    constexpr int rows_in_all = 4 + 4 + 4 + 8 + 8 + 16 + 16;
    std::vector<status_line> expected;
    int read = 0;
    for (const band_of_pass& band : bands) {
        for (int row = band.first_row; row < 32; row += band.row_step) {
            expected.push_back({read * 100 / rows_in_all, "Decoding PNG"});
            const int first = row - band.rows_above;
            if (first <= bad && bad < first + 8) {
                break;
            }
            ++read;
        }
    }
    expected.push_back({100, ""});
    return expected;
}

TEST_F(DecodePngAdam7Damage, BandsOfEachPassCoverItsBlocks)
{
    const bytes file = write_png(random_picture(32, 32, {2, 8}));
    for (int bad = 0; bad < 32; ++bad) {
        start_over();
        open(file);
        scripted::plan.unmappable = {image_stride_Y * static_cast<uint64_t>(bad), 1};
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(scripted::log.status, status_without_row(bad)) << bad;
    }
}

TEST_F(DecodePngAdam7Damage, EveryPassMayFailToMap)
{
    for (const colour_form form : colour_forms) {
        start_over();
        open(write_png(random_picture(17, 17, form)));
        const uint64_t size = scripted::buffer_size();
        scripted::plan.unmappable = {0, size};
        EXPECT_EQ(decode(), 0);
        EXPECT_EQ(count_of(printed, "Failed to memory-map Y plane\n"), 7U);
        EXPECT_EQ(bytes(scripted::buffer(), scripted::buffer() + size), bytes(size, 0));
    }
}

TEST_F(DecodePngAdam7Damage, StopRequestEndsEachPassAndFinishesItsWork)
{
    const bytes file = write_png(random_picture(17, 17, {6, 8}));
    for (uint64_t last = 0; last < all_rows; ++last) {
        SCOPED_TRACE(last);
        expect_drawn_by_rules(file, 90, [last](uint64_t row, adam7_literal&) {
            if (row == last) {
                DIE4 = 1;
            }
        });
        EXPECT_EQ(scripted::log.status.size(), last + 2);
        EXPECT_EQ(scripted::log.ready.size(), 1U);
        EXPECT_EQ(count_calls("vexa_global_access_cache_cleanup_idle"), 7U);
    }
}

TEST_F(DecodePngAdam7Damage, StopRequestBeforeDecodingReadsNothing)
{
    open(write_png(random_picture(64, 64, {2, 8})), 90, true);
    const uint64_t mapped_before = scripted::log.mappings;
    DIE4 = 1;
    EXPECT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.status, (std::vector<status_line>{{100, ""}}));
    EXPECT_EQ(scripted::log.ready, (std::vector<status_line>{{-1, "Provisional image ready"}}));
    EXPECT_EQ(scripted::log.mappings, mapped_before);
    EXPECT_EQ(count_of(printed, "Generating mipmap 32 x 32\n"), 3U);
}

TEST_F(DecodePngAdam7Damage, StopRequestBetweenPassesIsSeenByTheNextOne)
{
    const bytes file = write_png(random_picture(17, 17, {2, 8}));
    for (const uint64_t first : first_rows) {
        expect_drawn_by_rules(file, 0, [first](uint64_t row, adam7_literal&) {
            if (row + 1 == first) {
                DIE4 = 1;
            }
        });
        EXPECT_EQ(scripted::log.status.size(), first == 0 ? all_rows + 1 : first + 1);
    }
}

// The rest of the pass counts as missing; the work after each pass is still done.
TEST_F(DecodePngAdam7Damage, StopInsideTheLibraryEndsItsPass)
{
    const bytes whole = write_png(random_picture(17, 17, {6, 8}));
    const auto data = static_cast<ptrdiff_t>(8 + 25);
    bytes file(whole.begin(), whole.begin() + data);
    for (int i = 0; i < 20'000; ++i) {
        append_png_chunk(file, {"IDAT"});
    }
    file.insert(file.end(), whole.begin() + data, whole.end());
    open(file, 90, true);
    scripted::plan.clock_step_us = max_decoder_delay_us;
    failing_calls::plan.on_read = [] { DIE4 = 1; };
    EXPECT_EQ(decode(), 0);
    EXPECT_THAT(printed, testing::Not(testing::HasSubstr("aborting")));
    EXPECT_EQ(scripted::log.ready, (std::vector<status_line>{{-1, "Provisional image ready"}}));
    EXPECT_EQ(scripted::log.status, (std::vector<status_line>{{0, "Decoding PNG"}, {100, ""}}));
    EXPECT_EQ(count_calls("vexa_global_access_cache_cleanup_idle"), 7U);
    EXPECT_EXIT(png_error(png_context, "late"), testing::KilledBySignal(SIGABRT),
                "Unexpected PNG setjmp after header setup\n");
}

TEST_F(DecodePngAdam7Damage, FailedRowAllocationIsRefused)
{
    open(write_png(random_picture(17, 17, {6, 8})));
    failing_calls::plan.calloc = 1;
    EXPECT_EQ(decode(), -1);
    EXPECT_EQ(printed, "Unable to allocate RGB row\n");
    EXPECT_EQ(png_context, nullptr);
    EXPECT_EQ(png_fp, nullptr);
    EXPECT_TRUE(scripted::log.status.empty());
}

TEST_F(DecodePngAdam7Damage, RowHoldsTheStrideAndSpareBytes)
{
    struct need {
        colour_form form;
        size_t bytes;
    };
    for (const need& n : {need{{6, 8}, 32 * 4 + 64},
                          {{2, 16}, 32 * 3 + 64},
                          {{4, 8}, 32 * 2 + 64},
                          {{3, 2}, 32 + 64},
                          {{0, 16}, 32 + 64}}) {
        start_over();
        open(write_png(random_picture(17, 1, n.form)));
        failing_calls::plan.max_calloc = n.bytes - 1;
        EXPECT_EQ(decode(), -1);
        EXPECT_EQ(printed, "Unable to allocate RGB row\n");
    }
}

TEST_F(DecodePngAdam7Damage, MissingPaletteIsRefused)
{
    open(write_png(random_picture(17, 17, {2, 8})));
    png_color_type = 3;
    EXPECT_EQ(decode(), -1);
    EXPECT_EQ(printed, "PNG library failed to return color palette\n");
    EXPECT_EQ(png_context, nullptr);
}

TEST_F(DecodePngAdam7Damage, LaterLibraryErrorEndsTheProcess)
{
    open(write_png(random_picture(4, 4, {2, 8})));
    ASSERT_EQ(decode(), 0);
    EXPECT_DEATH(png_error(png_context, "later"), "Unexpected PNG setjmp after header setup");
}

TEST_F(DecodePngAdam7Damage, BrokenInvariantsEndTheProcess)
{
    open(write_png(random_picture(4, 4, {2, 8})));
    const std::string where = "bin/vexa_stillimage.*full_decode_png_rgb_adam7.*";
    EXPECT_DEATH(
        {
            png_interlace_method = 0;
            full_decode_png_rgb_adam7();
        },
        where + "png_interlace_method == 1");
    EXPECT_DEATH(
        {
            image_cnb_buffer_fd = -1;
            full_decode_png_rgb_adam7();
        },
        where + "image_cnb_buffer_fd >= 0");
    EXPECT_DEATH(
        {
            image_chroma_x_shift = 1;
            full_decode_png_rgb_adam7();
        },
        where + "image_chroma_x_shift == 0");
    EXPECT_DEATH(
        {
            image_chroma_y_shift = 1;
            full_decode_png_rgb_adam7();
        },
        where + "image_chroma_y_shift == 0");
}

TEST_F(DecodePngAdam7Damage, UnknownColourTypeEndsTheProcess)
{
    open(write_png(random_picture(4, 4, {2, 8})));
    png_color_type = 1;
    EXPECT_EXIT(full_decode_png_rgb_adam7(), testing::KilledBySignal(SIGABRT), "");
}

} // namespace
