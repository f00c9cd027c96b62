#include "tests/unit/decode/png_fixture.h"

#include <algorithm>
#include <random>

#include <png.h>
#include <zlib.h>

#include "bin/decode/png.h"
#include "bin/examine/image_state.h"
#include "bin/examine/png.h"
#include "bin/framebuffer/layout.h"
#include "platform/cnb.h"
#include "tests/support/png_literal.h"

namespace png_tests {

palette_trouble trouble = palette_trouble::NONE;

const std::vector<model> models = {
    {"full_decode_png_rgb", 2, {8, 16}, full_decode_png_rgb, {"Y", "U", "V"}, nullptr, nullptr},
    {"full_decode_png_rgba",
     6,
     {8, 16},
     full_decode_png_rgba,
     {"Y", "U", "V", "A"},
     "ADAM7 interlace not supported [rgba]",
     nullptr},
    {"full_decode_png_grayscale",
     0,
     {1, 2, 4, 8, 16},
     full_decode_png_grayscale,
     {"Y"},
     "ADAM7 interlace not supported [gray]",
     nullptr},
    {"full_decode_png_grayscale_alpha",
     4,
     {8, 16},
     full_decode_png_grayscale_alpha,
     {"Y", "A"},
     "ADAM7 interlace not supported",
     "Unsupported interlace pattern"},
    {"full_decode_png_palette",
     3,
     {1, 2, 4, 8},
     full_decode_png_palette,
     {"Y", "U", "V"},
     "ADAM7 interlace not supported [pal]",
     nullptr},
};

const model& model_of(unsigned colour_type)
{
    return *std::ranges::find_if(
        models, [colour_type](const model& m) { return m.colour_type == colour_type; });
}

std::string damage(const std::string& library_message)
{
    return "PNG ERROR: " + library_message + "\nlibpng error: " + library_message +
           "\nUnexpected PNG error while reading, aborting decode\n";
}

size_t row_bytes(const png_spec& spec)
{
    static constexpr size_t channels[] = {1, 0, 3, 1, 2, 0, 4};
    return 1 + (spec.width * channels[spec.colour_type] * spec.depth + 7) / 8;
}

png_spec random_picture(uint32_t width, uint32_t height, uint8_t colour_type, uint8_t depth,
                        unsigned seed)
{
    std::mt19937 random(seed);
    png_spec spec = {.width = width, .height = height, .depth = depth, .colour_type = colour_type};
    if (colour_type == 3) {
        png_chunk palette = {"PLTE"};
        for (size_t i = 0; i < size_t{3} << depth; ++i) {
            palette.data.push_back(static_cast<unsigned char>(random()));
        }
        spec.chunks.push_back(palette);
    }
    spec.rows.resize(row_bytes(spec) * height);
    std::ranges::generate(spec.rows, [&random] { return static_cast<unsigned char>(random()); });
    for (size_t row = 0; row < height; ++row) {
        spec.rows[row * row_bytes(spec)] %= 5;
    }
    return spec;
}

bytes write_in_pieces(const png_spec& spec, size_t piece, int level)
{
    uLongf size = compressBound(spec.rows.size());
    bytes packed(size);
    if (compress2(packed.data(), &size, spec.rows.data(), spec.rows.size(), level) != Z_OK) {
        abort();
    }
    packed.resize(size);
    bytes file = png_signature();
    append_png_chunk(file, {"IHDR", png_header(spec)});
    for (const png_chunk& chunk : spec.chunks) {
        append_png_chunk(file, chunk);
    }
    for (auto at = packed.begin(); at != packed.end();) {
        const auto end = at + std::min<ptrdiff_t>(static_cast<ptrdiff_t>(piece), packed.end() - at);
        append_png_chunk(file, {"IDAT", {at, end}});
        at = end;
    }
    append_png_chunk(file, {"IEND"});
    return file;
}

void Fixture::start_over()
{
    free_all_png_fileio();
    reset_image_state();
    reset_layout();
    scripted::reset();
    cnb_default_buffer_drop();
    failing_calls::plan = {};
    trouble = palette_trouble::NONE;
}

void Fixture::open(const bytes& file, unsigned char before)
{
    scripted::set_picture(file);
    testing::internal::CaptureStderr();
    const int result = examine_png_file();
    layout_full_size();
    printed = testing::internal::GetCapturedStderr();
    ASSERT_EQ(result, 0) << printed;
    scripted::provide_buffer(image_decoded_size, before);
}

int Fixture::decode()
{
    return decode(model_of(static_cast<unsigned>(png_color_type)).decode);
}

int Fixture::decode(int (*decoder)())
{
    testing::internal::CaptureStderr();
    const int result = decoder();
    printed = testing::internal::GetCapturedStderr();
    return result;
}

void Fixture::expect_drawn_by_rules(const bytes& file, const std::string& name,
                                    unsigned char before)
{
    start_over();
    ASSERT_NO_FATAL_FAILURE(open(file, before)) << name;
    EXPECT_EQ(decode(), 0) << name;
    EXPECT_TRUE(allocation() == draw_png_literally(file, {.before = before})) << name;
    EXPECT_EQ(scripted::log.status.back(), (scripted::status_line{100, ""})) << name;
}

bytes Fixture::allocation()
{
    return {scripted::buffer(), scripted::buffer() + scripted::buffer_size()};
}

} // namespace png_tests

extern "C" {

png_uint_32 __real_png_get_PLTE(png_const_structrp context, png_inforp info, png_colorp* palette,
                                int* count);
png_uint_32 __wrap_png_get_PLTE(png_const_structrp context, png_inforp info, png_colorp* palette,
                                int* count);

png_uint_32 __wrap_png_get_PLTE(png_const_structrp context, png_inforp info, png_colorp* palette,
                                int* count)
{
    switch (png_tests::trouble) {
    case png_tests::palette_trouble::NULL_PALETTE:
        return PNG_INFO_PLTE;
    case png_tests::palette_trouble::NO_PALETTE:
        return 0;
    default:
        break;
    }
    const png_uint_32 found = __real_png_get_PLTE(context, info, palette, count);
    if (png_tests::trouble == png_tests::palette_trouble::ONE_ENTRY_FEWER) {
        --*count;
    }
    return found;
}

} // extern "C"
