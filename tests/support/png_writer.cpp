#include "tests/support/png_writer.h"

#include <cstdlib>

#include <zlib.h>

namespace {

void append_32(std::vector<unsigned char>& bytes, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<unsigned char>(value >> shift));
    }
}

std::vector<unsigned char> compressed(const std::vector<unsigned char>& bytes)
{
    uLongf size = compressBound(bytes.size());
    std::vector<unsigned char> packed(size);
    if (compress2(packed.data(), &size, bytes.data(), bytes.size(), 6) != Z_OK) {
        abort();
    }
    packed.resize(size);
    return packed;
}

} // namespace

std::vector<unsigned char> png_signature()
{
    return {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
}

void append_png_chunk(std::vector<unsigned char>& file, const png_chunk& chunk)
{
    append_32(file, static_cast<uint32_t>(chunk.data.size()));
    const size_t checked_from = file.size();
    file.insert(file.end(), chunk.name.begin(), chunk.name.end());
    file.insert(file.end(), chunk.data.begin(), chunk.data.end());
    const uLong sum =
        crc32(0, file.data() + checked_from, static_cast<uInt>(file.size() - checked_from));
    append_32(file, static_cast<uint32_t>(sum));
}

std::vector<unsigned char> png_header(const png_spec& spec)
{
    std::vector<unsigned char> data;
    append_32(data, spec.width);
    append_32(data, spec.height);
    data.insert(data.end(),
                {spec.depth, spec.colour_type, spec.compression, spec.filter, spec.interlace});
    return data;
}

std::vector<unsigned char> write_png(const png_spec& spec)
{
    std::vector<unsigned char> file = png_signature();
    append_png_chunk(file, {"IHDR", png_header(spec)});
    for (const png_chunk& chunk : spec.chunks) {
        append_png_chunk(file, chunk);
    }
    append_png_chunk(file, {"IDAT", compressed(spec.rows)});
    append_png_chunk(file, {"IEND", {}});
    return file;
}
