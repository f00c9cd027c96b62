#include "tests/support/webp_writer.h"

#include <cstdlib>
#include <string_view>

#include <webp/encode.h>

namespace {

constexpr uint32_t animation_flag = 0x02;
constexpr uint32_t alpha_flag = 0x10;

std::vector<unsigned char> take_output(uint8_t* output, size_t size)
{
    if (size == 0) {
        abort();
    }
    std::vector<unsigned char> file(output, output + size);
    WebPFree(output);
    return file;
}

void append_text(std::vector<unsigned char>& file, std::string_view text)
{
    file.insert(file.end(), text.begin(), text.end());
}

void append_little_endian(std::vector<unsigned char>& file, uint64_t value, unsigned bytes)
{
    for (unsigned i = 0; i < bytes; ++i) {
        file.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

} // namespace

std::vector<unsigned char> lossless_webp(int width, int height,
                                         const std::vector<unsigned char>& rgba)
{
    uint8_t* output = nullptr;
    const size_t size = WebPEncodeLosslessRGBA(rgba.data(), width, height, width * 4, &output);
    return take_output(output, size);
}

std::vector<unsigned char> lossy_webp(int width, int height, const std::vector<unsigned char>& rgba,
                                      float quality)
{
    uint8_t* output = nullptr;
    const size_t size = WebPEncodeRGBA(rgba.data(), width, height, width * 4, quality, &output);
    return take_output(output, size);
}

// The bit stream: the size, no alpha, no transform, no cache, no groups, and five codes with the
// single symbol 0, which take no bits per pixel.
std::vector<unsigned char> one_colour_webp(uint32_t width, uint32_t height)
{
    constexpr uint64_t five_codes = uint64_t{0x11111} << 35U;
    const uint64_t bits = (width - 1) | uint64_t{height - 1} << 14U | five_codes;
    std::vector<unsigned char> file;
    append_text(file, "RIFF");
    append_little_endian(file, 20, 4);
    append_text(file, "WEBPVP8L");
    append_little_endian(file, 8, 4);
    file.push_back(0x2F);
    append_little_endian(file, bits, 7);
    return file;
}

std::vector<unsigned char> webp_animation_start(uint32_t width, uint32_t height, bool alpha)
{
    std::vector<unsigned char> chunks;
    append_text(chunks, "WEBPVP8X");
    append_little_endian(chunks, 10, 4);
    append_little_endian(chunks, animation_flag | (alpha ? alpha_flag : 0), 4);
    append_little_endian(chunks, width - 1, 3);
    append_little_endian(chunks, height - 1, 3);
    append_text(chunks, "ANIM");
    append_little_endian(chunks, 6, 4);
    append_little_endian(chunks, 0, 4); // background
    append_little_endian(chunks, 0, 2); // loops
    std::vector<unsigned char> file;
    append_text(file, "RIFF");
    append_little_endian(file, static_cast<uint32_t>(chunks.size()), 4);
    file.insert(file.end(), chunks.begin(), chunks.end());
    return file;
}
