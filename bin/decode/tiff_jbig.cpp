#include "bin/decode/tiff_jbig.h"

#include <cstddef>

#include "bin/examine/tiff.h"

namespace {

// Offsets of the header's fields, which have their most significant byte first.
constexpr tmsize_t header_bytes = 20;
constexpr size_t planes_at = 2;
constexpr size_t width_at = 4;
constexpr size_t height_at = 8;

bool is_jbig()
{
    uint16_t compression = 0;
    return TIFFGetField(tiff_image, TIFFTAG_COMPRESSION, &compression) != 0 &&
           compression == COMPRESSION_JBIG;
}

// Reads the header with the bit order that the JBIG library gets: libtiff reverses the bits of each
// byte, except when they are stored least significant bit first.
bool read_header(uint32_t strip, unsigned char* header)
{
    if (TIFFReadRawStrip(tiff_image, strip, header, header_bytes) != header_bytes) {
        return false;
    }
    uint16_t order = 0;
    TIFFGetFieldDefaulted(tiff_image, TIFFTAG_FILLORDER, &order);
    if (order != FILLORDER_LSB2MSB) {
        TIFFReverseBits(header, header_bytes);
    }
    return true;
}

uint32_t number_at(const unsigned char* bytes)
{
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

} // namespace

bool jbig_strip_fits(uint32_t strip, uint64_t bytes)
{
    unsigned char header[header_bytes];
    if (!is_jbig() || !read_header(strip, header)) {
        return true;
    }
    const uint32_t width = number_at(header + width_at);
    const uint32_t height = number_at(header + height_at);
    const uint64_t row = (uint64_t{width} + 7) / 8 * header[planes_at]; // below 2^38
    if (row == 0 || height <= bytes / row) {
        return true;
    }
    TIFFErrorExt(nullptr, "JBIG", "Strip %u says that it is %u x %u pixels, which is too much",
                 strip, width, height);
    return false;
}
