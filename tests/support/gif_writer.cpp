// Image data is LZW without compression: 9-bit codes for one index each, with a clear code before
// the table grows so far that codes get longer. A frame of zeros is compressed.
#include "tests/support/gif_writer.h"

#include <algorithm>
#include <bit>

namespace {

constexpr unsigned index_bits = 8;
constexpr unsigned clear_code = 1U << index_bits;
constexpr unsigned end_code = clear_code + 1;
constexpr unsigned code_bits = index_bits + 1;
constexpr size_t codes_between_clears = 250;

void append_16(std::vector<unsigned char>& file, unsigned value)
{
    file.push_back(static_cast<unsigned char>(value));
    file.push_back(static_cast<unsigned char>(value >> 8));
}

// The palette's flag and size in the packed byte of a descriptor.
unsigned palette_bits(const std::vector<gif_colour>& palette)
{
    if (palette.empty()) {
        return 0;
    }
    unsigned bits = 1;
    while ((2U << (bits - 1)) < palette.size()) {
        ++bits;
    }
    return 0x80U | (bits - 1);
}

void append_palette(std::vector<unsigned char>& file, const std::vector<gif_colour>& palette)
{
    for (const gif_colour& colour : palette) {
        file.insert(file.end(), colour.begin(), colour.end());
    }
}

class code_packer {
public:
    void put(unsigned code, unsigned bits = code_bits)
    {
        held_ |= code << held_bits_;
        for (held_bits_ += bits; held_bits_ >= 8; held_bits_ -= 8) {
            bytes.push_back(static_cast<unsigned char>(held_));
            held_ >>= 8;
        }
    }

    void finish()
    {
        if (held_bits_ > 0) {
            bytes.push_back(static_cast<unsigned char>(held_));
        }
    }

    std::vector<unsigned char> bytes;

private:
    unsigned held_ = 0;
    unsigned held_bits_ = 0;
};

std::vector<unsigned char> image_codes(const std::vector<unsigned char>& indices)
{
    code_packer packer;
    for (size_t i = 0; i < indices.size(); ++i) {
        if (i % codes_between_clears == 0) {
            packer.put(clear_code);
        }
        packer.put(indices[i]);
    }
    packer.put(end_code);
    packer.finish();
    return packer.bytes;
}

// Each code is the one that the reader adds to its table next, for a run that is one index longer
// than the previous one. Once the table is full its last code is repeated.
std::vector<unsigned char> codes_of_zeros(size_t count)
{
    constexpr unsigned last_code = 4095;
    code_packer packer;
    packer.put(clear_code);
    packer.put(0);
    unsigned code = end_code;
    size_t length = 1;
    for (size_t done = 1; done < count; done += length) {
        if (code < last_code) {
            ++code;
            ++length;
        }
        packer.put(code, std::max(code_bits, static_cast<unsigned>(std::bit_width(code))));
    }
    packer.put(end_code, static_cast<unsigned>(std::bit_width(std::max(code, clear_code))));
    packer.finish();
    return packer.bytes;
}

void append_blocks(std::vector<unsigned char>& file, const std::vector<unsigned char>& bytes)
{
    for (size_t done = 0; done < bytes.size();) {
        const size_t length = std::min<size_t>(255, bytes.size() - done);
        file.push_back(static_cast<unsigned char>(length));
        const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(done);
        file.insert(file.end(), from, from + static_cast<std::ptrdiff_t>(length));
        done += length;
    }
    file.push_back(0);
}

void append_control(std::vector<unsigned char>& file, const gif_control_spec& control)
{
    std::vector<unsigned char> data;
    data.push_back(
        static_cast<unsigned char>(control.disposal << 2 | (control.transparent ? 1U : 0U)));
    append_16(data, control.delay);
    data.push_back(control.transparent.value_or(0));
    append_gif_extension(file, 0xF9, {data});
}

} // namespace

gif_frame_spec uniform_gif_frame(unsigned width, unsigned height, unsigned char index,
                                 unsigned delay)
{
    gif_frame_spec frame = {.width = width, .height = height};
    frame.control = gif_control_spec{.delay = delay};
    frame.indices.assign(size_t{width} * height, index);
    return frame;
}

gif_frame_spec varied_gif_frame(unsigned width, unsigned height, unsigned delay)
{
    gif_frame_spec frame = uniform_gif_frame(width, height, 0, delay);
    for (size_t i = 0; i < frame.indices.size(); ++i) {
        frame.indices[i] = static_cast<unsigned char>(i * 7 + 1);
    }
    return frame;
}

void append_gif_extension(std::vector<unsigned char>& file, unsigned char code,
                          const std::vector<std::vector<unsigned char>>& blocks)
{
    file.push_back(0x21);
    file.push_back(code);
    for (const auto& block : blocks) {
        file.push_back(static_cast<unsigned char>(block.size()));
        file.insert(file.end(), block.begin(), block.end());
    }
    file.push_back(0);
}

std::vector<unsigned char> gif_start(const gif_spec& spec)
{
    std::vector<unsigned char> file = {'G', 'I', 'F', '8', '9', 'a'};
    append_16(file, spec.width);
    append_16(file, spec.height);
    constexpr unsigned colour_resolution_8 = 7U << 4;
    file.push_back(static_cast<unsigned char>(palette_bits(spec.palette) | colour_resolution_8));
    file.push_back(static_cast<unsigned char>(spec.background));
    file.push_back(0); // aspect
    append_palette(file, spec.palette);
    return file;
}

void append_gif_frame(std::vector<unsigned char>& file, const gif_frame_spec& frame)
{
    if (frame.control) {
        append_control(file, *frame.control);
    }
    file.push_back(0x2C);
    append_16(file, frame.left);
    append_16(file, frame.top);
    append_16(file, frame.width);
    append_16(file, frame.height);
    file.push_back(
        static_cast<unsigned char>(palette_bits(frame.palette) | (frame.interlaced ? 0x40U : 0U)));
    append_palette(file, frame.palette);
    file.push_back(index_bits);
    append_blocks(file, frame.all_zero ? codes_of_zeros(size_t{frame.width} * frame.height)
                                       : image_codes(frame.indices));
}

std::vector<unsigned char> write_gif(const gif_spec& spec)
{
    std::vector<unsigned char> file = gif_start(spec);
    for (const gif_frame_spec& frame : spec.frames) {
        append_gif_frame(file, frame);
    }
    if (spec.trailer) {
        file.push_back(0x3B);
    }
    return file;
}
