// The row converters against the rules, sample by sample, at every width up to 70 and around the
// block sizes of the converters.
#include <csignal>

#include "bin/decode/tiff_rows.h"
#include "bin/examine/tiff.h"
#include "tests/support/guarded_bytes.h"
#include "tests/unit/decode/tiff_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

int luma(int r, int g, int b)
{
    return (66 * r + 129 * g + 25 * b + 4096) >> 8;
}

int blue_difference(int r, int g, int b)
{
    return (-38 * r - 74 * g + 112 * b + 32768) >> 8;
}

int red_difference(int r, int g, int b)
{
    return (112 * r - 94 * g - 18 * b + 32768) >> 8;
}

struct four_rows {
    explicit four_rows(size_t size) : y(size, 1), u(size, 2), v(size, 3), a(size, 4) {}
    sample_planes row() { return {y.data(), u.data(), v.data(), a.data()}; }
    bool operator==(const four_rows&) const = default;
    bytes y, u, v, a;
};

constexpr size_t beyond = 9; // samples after the row that must not change

four_rows converted(tiff_model model, bool alpha, const bytes& source, size_t count, uint32_t bits)
{
    const guarded_bytes guarded(source);
    four_rows rows(count + beyond);
    convert_tiff_row(*find_tiff_converter(model, bits, alpha), guarded.begin(), count, rows.row());
    return rows;
}

void put_rgb(four_rows& rows, size_t x, int r, int g, int b)
{
    rows.y[x] = static_cast<unsigned char>(luma(r, g, b));
    rows.u[x] = static_cast<unsigned char>(blue_difference(r, g, b));
    rows.v[x] = static_cast<unsigned char>(red_difference(r, g, b));
}

void put_pixel(four_rows& rows, size_t x, tiff_model model, const unsigned char* s)
{
    switch (model) {
    case TIFF_RGB:
        put_rgb(rows, x, s[0], s[1], s[2]);
        return;
    case TIFF_YCBCR:
        rows.u[x] = static_cast<unsigned char>((s[1] - 128) * 224 / 255 - 128);
        rows.v[x] = static_cast<unsigned char>((s[2] - 128) * 224 / 255 - 128);
        [[fallthrough]];
    case TIFF_GRAYSCALE:
        rows.y[x] = static_cast<unsigned char>(s[0] * 219 / 255 + 16);
        return;
    default: {
        const int w = 255 - s[3];
        put_rgb(rows, x, w - s[0] * w / 255, w - s[1] * w / 255, w - s[2] * w / 255);
    }
    }
}

constexpr size_t colour_samples[] = {3, 1, 3, 4};

TEST(TiffRows, EightBitModelsAtEveryWidth)
{
    for (const tiff_model model : {TIFF_RGB, TIFF_GRAYSCALE, TIFF_YCBCR, TIFF_CMYK}) {
        for (const bool alpha : {false, true}) {
            const size_t step = colour_samples[model] + (alpha ? 1 : 0);
            for (size_t width = 1; width < 3100; width += width < 70 ? 1 : 341) {
                SCOPED_TRACE(testing::Message() << model << " " << alpha << " " << width);
                const bytes source = noise_bytes(step * width, static_cast<unsigned>(width));
                four_rows wanted(width + beyond);
                for (size_t x = 0; x < width; ++x) {
                    put_pixel(wanted, x, model, &source[x * step]);
                    wanted.a[x] = alpha ? source[x * step + step - 1] : wanted.a[x];
                }
                ASSERT_TRUE(converted(model, alpha, source, width, 8) == wanted);
            }
        }
    }
}

TEST(TiffRows, EveryInkWithEveryBlack)
{
    for (unsigned k = 0; k < 256; ++k) {
        bytes source;
        four_rows wanted(256 + beyond);
        for (unsigned ink = 0; ink < 256; ++ink) {
            const unsigned char s[] = {
                static_cast<unsigned char>(ink), static_cast<unsigned char>(255 - ink),
                static_cast<unsigned char>(ink * 7), static_cast<unsigned char>(k)};
            source.insert(source.end(), s, s + 4);
            put_pixel(wanted, ink, TIFF_CMYK, s);
        }
        ASSERT_TRUE(converted(TIFF_CMYK, false, source, 256, 8) == wanted) << k;
    }
}

TEST(TiffRows, FullInkIsBlackAndNoInkIsWhite)
{
    const four_rows rows = converted(TIFF_CMYK, false, {9, 99, 199, 255, 0, 0, 0, 0}, 2, 8);
    EXPECT_EQ((bytes{rows.y[0], rows.u[0], rows.v[0]}), (bytes{16, 128, 128}));
    EXPECT_EQ((bytes{rows.y[1], rows.u[1], rows.v[1]}), (bytes{235, 128, 128}));
}

TEST(TiffRows, IndicesUseTheHighBytesOfTheColormap)
{
    std::vector<uint16_t> red(256);
    std::vector<uint16_t> green(256);
    std::vector<uint16_t> blue(256);
    for (size_t i = 0; i < 256; ++i) {
        red[i] = static_cast<uint16_t>(i * 257);
        green[i] = static_cast<uint16_t>((255 - i) << 8 | i);
        blue[i] = static_cast<uint16_t>((i * 7 & 255) << 8 | 255);
    }
    set_tiff_colours(red.data(), green.data(), blue.data());
    for (size_t width = 1; width < 3100; width += width < 70 ? 1 : 341) {
        const bytes source = noise_bytes(width, static_cast<unsigned>(width));
        four_rows wanted(width + beyond);
        for (size_t x = 0; x < width; ++x) {
            put_rgb(wanted, x, red[source[x]] >> 8, green[source[x]] >> 8, blue[source[x]] >> 8);
        }
        ASSERT_TRUE(converted(TIFF_PALETTE, false, source, width, 8) == wanted) << width;
    }
}

TEST(TiffRows, BitsAreExpandedInGroupsOfEight)
{
    for (const bool white_is_zero : {false, true}) {
        set_tiff_bit_luma(white_is_zero);
        for (size_t width = 1; width < 70; ++width) {
            const bytes source = noise_bytes((width + 7) / 8, static_cast<unsigned>(width));
            four_rows wanted(width + beyond);
            for (size_t x = 0; x < source.size() * 8; ++x) {
                const bool bit = (source[x / 8] << x % 8 & 0x80) != 0;
                wanted.y[x] = bit != white_is_zero ? 235 : 16;
            }
            ASSERT_TRUE(converted(TIFF_GRAYSCALE, false, source, width, 1) == wanted) << width;
        }
    }
    set_tiff_bit_luma(false);
}

TEST(TiffRows, OtherDepthsHaveNoConverter)
{
    for (const tiff_model model : {TIFF_RGB, TIFF_GRAYSCALE, TIFF_YCBCR, TIFF_CMYK, TIFF_PALETTE}) {
        for (uint32_t bits = 0; bits < 70; ++bits) {
            for (const bool alpha : {false, true}) {
                const bool drawn = (bits == 8 && !(model == TIFF_PALETTE && alpha)) ||
                                   (bits == 1 && model == TIFF_GRAYSCALE && !alpha);
                EXPECT_EQ(find_tiff_converter(model, bits, alpha) != nullptr, drawn)
                    << model << " " << bits << " " << alpha;
            }
        }
    }
}

TEST(TiffRows, EmptyRowsBreakAnInvariant)
{
    four_rows rows(1);
    EXPECT_EXIT(
        convert_tiff_row(*find_tiff_converter(TIFF_RGB, 8, false), rows.a.data(), 0, rows.row()),
        testing::KilledBySignal(SIGABRT), "bin/vexa_stillimage: .*`c != 0'");
}

} // namespace
