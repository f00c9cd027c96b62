// Events while the library reads: served clients, signals, disk errors.
#include <algorithm>
#include <cerrno>

#include "bin/examine/reading_watch.h"
#include "bin/framebuffer/layout.h"
#include "platform/run_state.h"
#include "tests/support/png_literal.h"
#include "tests/unit/decode/png_fixture.h"

namespace png_tests {
namespace {

constexpr size_t buffer_size = 32768; // of one read

class PngReading : public Fixture {
protected:
    // Counts reads from now on and calls `action` in read `number`.
    void in_read(int number, const std::function<void()>& action)
    {
        failing_calls::plan.on_read = [this, number, action] {
            if (++reads == number) {
                action();
            }
        };
    }

    // Inserts `count` empty chunks before the image data.
    static bytes with_empty_chunks(const bytes& file, size_t count)
    {
        const std::string name = "IDAT";
        const auto data = std::search(file.begin(), file.end(), name.begin(), name.end()) - 4;
        bytes empty;
        append_png_chunk(empty, {"IDAT"});
        bytes result(file.begin(), data);
        for (size_t i = 0; i < count; ++i) {
            result.insert(result.end(), empty.begin(), empty.end());
        }
        result.insert(result.end(), data, file.end());
        return result;
    }

    int reads = 0;
};

TEST_F(PngReading, ClientsAreServedAtFixedIntervals)
{
    const bytes file = write_png(random_picture(1000, 64, 6, 8)); // one batch, 256 KB
    open(file);
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(scripted::log.idle_rounds, 1U);
    start_over();
    open(file);
    scripted::plan.clock_step_us = 600;
    ASSERT_EQ(decode(), 0);
    EXPECT_GE(scripted::log.idle_rounds, 1 + 256'000 / buffer_size);
    EXPECT_TRUE(allocation() == draw_png_literally(file));
}

TEST_F(PngReading, SignalInsideABatchIsLeftToTheDecoder)
{
    for (const model& m : models) {
        const bytes file = write_png(random_picture(1000, 300, m.colour_type, 8));
        open(file, 90);
        in_read(1, [] { DIE4 = 1; });
        EXPECT_EQ(decode(), 0);
        EXPECT_GT(reads, 0);
        EXPECT_EQ(printed, "");
        EXPECT_TRUE(allocation() == draw_png_literally(file, {.batches = 1, .before = 90}))
            << m.name;
        start_over();
        reads = 0;
    }
}

TEST_F(PngReading, DecoderThatIsTooSlowForASignalIsInterrupted)
{
    const bytes file = write_png(random_picture(16, 128, 6, 8));
    open(with_empty_chunks(file, 100'000), 90); // 1.2 MB
    scripted::plan.clock_step_us = max_decoder_delay_us / 4;
    in_read(5, [] { DIE4 = 1; });
    EXPECT_EQ(decode(), 0);
    EXPECT_GE(reads, 6);
    EXPECT_LE(reads, 9);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""}));
    const bytes planes = allocation();
    EXPECT_EQ(planes[64 * image_stride_Y - 1], 16); // the current batch is black
    EXPECT_EQ(planes[64 * image_stride_Y], 90);     // the next batch was not started
}

TEST_F(PngReading, EmptyChunksAreSkipped)
{
    const bytes file = write_png(random_picture(16, 20, 2, 8));
    open(with_empty_chunks(file, 20'000));
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_TRUE(allocation() == draw_png_literally(file));
}

TEST_F(PngReading, InterruptedReadsAreRetried)
{
    const bytes file = write_png(random_picture(400, 100, 2, 8));
    open(file);
    failing_calls::plan.max_read = 1000;
    failing_calls::plan.read = 3;
    failing_calls::plan.read_errno = EINTR;
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(printed, "");
    EXPECT_TRUE(allocation() == draw_png_literally(file));
}

TEST_F(PngReading, DiskErrorEndsTheFile)
{
    const bytes whole = write_png(random_picture(400, 200, 2, 8));
    open(whole);
    failing_calls::plan.max_read = 1000;
    failing_calls::plan.read = 70;
    failing_calls::plan.read_errno = EIO;
    // Examination has read one buffer, and the first 33 of the short reads fill another.
    const auto end = static_cast<ptrdiff_t>(2 * buffer_size + 36 * 1000);
    ASSERT_EQ(decode(), 0);
    EXPECT_EQ(printed,
              "Error while reading the picture: Input/output error\n" + damage("Read Error"));
    const bytes cut(whole.begin(), whole.begin() + end);
    EXPECT_TRUE(allocation() == draw_png_literally(cut));
}

} // namespace
} // namespace png_tests
