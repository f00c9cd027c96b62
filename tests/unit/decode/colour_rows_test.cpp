#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bin/decode/colour_rows.h"
#include "tests/support/guarded_bytes.h"

namespace {

using samples = std::vector<unsigned char>;

constexpr size_t max_run = 130;
constexpr size_t margin = 67; // odd, and larger than a vector
constexpr unsigned char untouched = 0xA5;

struct colour {
    int y, u, v;
};

// The rule in plain 32-bit arithmetic.
colour plain_colour(int r, int g, int b)
{
    return {(66 * r + 129 * g + 25 * b + 4096) >> 8, (-38 * r - 74 * g + 112 * b + 32768) >> 8,
            (112 * r - 94 * g - 18 * b + 32768) >> 8};
}

int plain_grey(int grey)
{
    return grey * 219 / 255 + 16;
}

// Planes with untouched bytes before and after the run.
struct run_planes {
    explicit run_planes(size_t count, size_t shift)
        : y(margin + shift + count + margin, untouched), u(y), v(y), a(y), start(margin + shift)
    {
    }

    sample_planes target()
    {
        return {y.data() + start, u.data() + start, v.data() + start, a.data() + start};
    }

    bool operator==(const run_planes&) const = default;

    samples y, u, v, a;
    size_t start;
};

void put(samples& plane, size_t at, int value)
{
    plane[at] = static_cast<unsigned char>(value);
}

void put_colour(run_planes& planes, size_t at, const colour& value)
{
    put(planes.y, planes.start + at, value.y);
    put(planes.u, planes.start + at, value.u);
    put(planes.v, planes.start + at, value.v);
}

// A kind of pixel: its size, its member of a kernel, and the plain rule.
struct pixel_kind {
    const char* name;
    size_t bytes;
    colour_run colour_kernel::*run;
    void (*expect)(const unsigned char* pixel, run_planes& planes, size_t at);
};

constexpr pixel_kind kinds[] = {
    {"rgb", 3, &colour_kernel::rgb,
     [](const unsigned char* pixel, run_planes& planes, size_t at) {
         put_colour(planes, at, plain_colour(pixel[0], pixel[1], pixel[2]));
     }},
    {"rgba", 4, &colour_kernel::rgba,
     [](const unsigned char* pixel, run_planes& planes, size_t at) {
         put_colour(planes, at, plain_colour(pixel[0], pixel[1], pixel[2]));
         put(planes.a, planes.start + at, pixel[3]);
     }},
    {"grey_alpha", 2, &colour_kernel::grey_alpha,
     [](const unsigned char* pixel, run_planes& planes, size_t at) {
         put(planes.y, planes.start + at, plain_grey(pixel[0]));
         put(planes.a, planes.start + at, pixel[1]);
     }},
    {"yuva", 4, &colour_kernel::yuva,
     [](const unsigned char* pixel, run_planes& planes, size_t at) {
         put_colour(planes, at, {pixel[0], pixel[1], pixel[2]});
         put(planes.a, planes.start + at, pixel[3]);
     }},
};

run_planes expected_planes(const pixel_kind& kind, const unsigned char* pixels, size_t count,
                           size_t shift)
{
    run_planes planes(count, shift);
    for (size_t i = 0; i < count; ++i) {
        kind.expect(pixels + i * kind.bytes, planes, i);
    }
    return planes;
}

samples random_bytes(size_t count)
{
    static std::mt19937 random(1);
    samples bytes(count);
    std::generate(bytes.begin(), bytes.end(), [] { return static_cast<unsigned char>(random()); });
    return bytes;
}

std::vector<const colour_kernel*> kernels_here()
{
    std::vector<const colour_kernel*> here;
    for (const colour_kernel& kernel : colour_kernels()) {
        if (runs_here(kernel.needs)) {
            here.push_back(&kernel);
        }
    }
    return here;
}

TEST(ColourRows, BestKernelIsTheFirstSupportedAndTheLastIsAlwaysSupported)
{
    ASSERT_FALSE(kernels_here().empty());
    EXPECT_EQ(&best_version(colour_kernels()), kernels_here().front());
    EXPECT_EQ(kernels_here().back(), &colour_kernels().back());
}

// All 16.7 million colours, in one run for each pair of red and green.
TEST(ColourRows, EveryVersionIsExactForEveryColour)
{
    samples rgb(256 * 3);
    samples rgba(256 * 4);
    samples y(256);
    samples u(256);
    samples v(256);
    std::array<samples, 4> made = {y, y, y, y};
    const sample_planes to = {made[0].data(), made[1].data(), made[2].data(), made[3].data()};
    for (unsigned pair = 0; pair < 65536; ++pair) {
        const auto r = static_cast<unsigned char>(pair >> 8);
        const auto g = static_cast<unsigned char>(pair);
        for (size_t b = 0; b < 256; ++b) {
            rgb[3 * b] = rgba[4 * b] = r;
            rgb[3 * b + 1] = rgba[4 * b + 1] = g;
            rgb[3 * b + 2] = rgba[4 * b + 2] = static_cast<unsigned char>(b);
            rgba[4 * b + 3] = static_cast<unsigned char>(b ^ r);
            const colour expected = plain_colour(r, g, static_cast<int>(b));
            put(y, b, expected.y);
            put(u, b, expected.u);
            put(v, b, expected.v);
        }
        for (const colour_kernel* kernel : kernels_here()) {
            kernel->rgb(rgb.data(), 256, to);
            ASSERT_TRUE(made[0] == y && made[1] == u && made[2] == v)
                << kernel->name << ", red " << int{r} << ", green " << int{g};
            kernel->rgba(rgba.data(), 256, to);
            ASSERT_TRUE(made[0] == y && made[1] == u && made[2] == v)
                << kernel->name << " with alpha, red " << int{r} << ", green " << int{g};
        }
    }
}

TEST(ColourRows, EveryVersionIsExactForEveryGreyBesideEveryAlpha)
{
    samples pixels;
    for (unsigned pair = 0; pair < 65536; ++pair) {
        pixels.push_back(static_cast<unsigned char>(pair >> 8));
        pixels.push_back(static_cast<unsigned char>(pair));
    }
    const run_planes expected = expected_planes(kinds[2], pixels.data(), 65536, 0);
    for (const colour_kernel* kernel : kernels_here()) {
        run_planes made(65536, 0);
        kernel->grey_alpha(pixels.data(), 65536, made.target());
        EXPECT_TRUE(made == expected) << kernel->name;
    }
}

// Runs of 0 to 130 pixels to planes of any alignment; the surrounding bytes must not change.
TEST(ColourRows, EveryVersionWritesExactlyTheSamplesOfTheRun)
{
    for (const pixel_kind& kind : kinds) {
        for (size_t count = 0; count <= max_run; ++count) {
            for (const size_t shift : {size_t{0}, size_t{1}, size_t{13}, size_t{30}}) {
                const samples pixels = random_bytes(count * kind.bytes + shift);
                const unsigned char* from = pixels.data() + shift;
                const run_planes expected = expected_planes(kind, from, count, shift);
                for (const colour_kernel* kernel : kernels_here()) {
                    run_planes made(count, shift);
                    (kernel->*kind.run)(from, count, made.target());
                    ASSERT_TRUE(made == expected) << kernel->name << ", " << kind.name << ", "
                                                  << count << " pixels, shift " << shift;
                }
            }
        }
    }
}

// The memory ends with the run.
TEST(ColourRows, EveryVersionReadsNothingAfterTheRun)
{
    for (const pixel_kind& kind : kinds) {
        for (size_t count = 0; count <= max_run; ++count) {
            const guarded_bytes pixels(random_bytes(count * kind.bytes));
            const run_planes expected = expected_planes(kind, pixels.begin(), count, 0);
            for (const colour_kernel* kernel : kernels_here()) {
                run_planes made(count, 0);
                (kernel->*kind.run)(pixels.begin(), count, made.target());
                ASSERT_TRUE(made == expected)
                    << kernel->name << ", " << kind.name << ", " << count << " pixels";
            }
        }
    }
}

TEST(ColourRows, EveryVersionSkipsAnAbsentAlphaPlane)
{
    for (size_t count = 0; count <= max_run; ++count) {
        const samples pixels = random_bytes(count * 4);
        run_planes expected = expected_planes(kinds[3], pixels.data(), count, 0);
        std::fill(expected.a.begin(), expected.a.end(), untouched);
        for (const colour_kernel* kernel : kernels_here()) {
            run_planes made(count, 0);
            sample_planes to = made.target();
            to.a = nullptr;
            kernel->yuva(pixels.data(), count, to);
            ASSERT_TRUE(made == expected) << kernel->name << ", " << count << " pixels";
        }
    }
}

// --- the functions of the header ----------------------------------------------------------------

TEST(ColourRows, RgbIsWrittenToThreePlanes)
{
    const samples pixels = random_bytes(77 * 3);
    run_planes made(77, 0);
    rgb_to_planes(pixels.data(), 77, made.target());
    EXPECT_TRUE(made == expected_planes(kinds[0], pixels.data(), 77, 0));
}

TEST(ColourRows, RgbaIsWrittenToFourPlanesWithoutPremultiplication)
{
    samples pixels = random_bytes(77 * 4);
    pixels[3] = 0;
    run_planes made(77, 0);
    rgba_to_planes(pixels.data(), 77, made.target());
    EXPECT_TRUE(made == expected_planes(kinds[1], pixels.data(), 77, 0));
}

TEST(ColourRows, GreyAndAlphaAreWrittenToTwoPlanes)
{
    const samples pixels = random_bytes(77 * 2);
    run_planes made(77, 0);
    grey_alpha_to_planes(pixels.data(), 77, made.target());
    EXPECT_TRUE(made == expected_planes(kinds[2], pixels.data(), 77, 0));
}

TEST(ColourRows, YuvaPixelsAreDeinterleavedWithOrWithoutAlpha)
{
    const samples pixels = random_bytes(77 * 4);
    run_planes expected = expected_planes(kinds[3], pixels.data(), 77, 0);
    run_planes with_alpha(77, 0);
    sample_planes to = with_alpha.target();
    yuva_to_planes(pixels.data(), 77, to);
    EXPECT_TRUE(with_alpha == expected);
    run_planes without(77, 0);
    to = without.target();
    to.a = nullptr;
    yuva_to_planes(pixels.data(), 77, to);
    std::fill(expected.a.begin(), expected.a.end(), untouched);
    EXPECT_TRUE(without == expected);
}

} // namespace
