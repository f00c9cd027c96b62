#include "tests/support/tiff_encoder.h"

#include <algorithm>
#include <sys/mman.h>
#include <unistd.h>

#include <tiffio.h>

namespace {

constexpr size_t colours = 256;

void set_tags(TIFF* image, const encoded_tiff& picture)
{
    TIFFSetField(image, TIFFTAG_IMAGEWIDTH, picture.width);
    TIFFSetField(image, TIFFTAG_IMAGELENGTH, picture.height);
    TIFFSetField(image, TIFFTAG_BITSPERSAMPLE, picture.bits);
    TIFFSetField(image, TIFFTAG_SAMPLESPERPIXEL, picture.samples);
    TIFFSetField(image, TIFFTAG_COMPRESSION, picture.compression);
    TIFFSetField(image, TIFFTAG_PHOTOMETRIC, picture.photometric);
    TIFFSetField(image, TIFFTAG_PLANARCONFIG, picture.planes);
    TIFFSetField(image, TIFFTAG_ROWSPERSTRIP, picture.rows_per_strip);
    if (picture.predictor != PREDICTOR_NONE) {
        TIFFSetField(image, TIFFTAG_PREDICTOR, picture.predictor);
    }
    if (picture.photometric == PHOTOMETRIC_YCBCR) {
        TIFFSetField(image, TIFFTAG_YCBCRSUBSAMPLING, 1, 1);
    }
    if (picture.photometric == PHOTOMETRIC_SEPARATED) {
        TIFFSetField(image, TIFFTAG_INKSET, INKSET_CMYK);
    }
}

void set_colours(TIFF* image, unsigned seed)
{
    const std::vector<unsigned char> noise = noise_bytes(colours * 3 * 2, seed + 1000);
    std::vector<uint16_t> values(3 * colours);
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<uint16_t>(noise[2 * i] << 8 | noise[2 * i + 1]);
    }
    TIFFSetField(image, TIFFTAG_COLORMAP, values.data(), values.data() + colours,
                 values.data() + 2 * colours);
}

bool write_strips(TIFF* image, const encoded_tiff& picture)
{
    const auto row = static_cast<size_t>(TIFFScanlineSize(image));
    const size_t rows_per_strip = std::min(picture.rows_per_strip, picture.height);
    const uint32_t strips = TIFFNumberOfStrips(image);
    const uint32_t strips_of_plane = picture.planes == 2 ? strips / picture.samples : strips;
    std::vector<unsigned char> pixels = picture.pixels;
    if (pixels.empty()) {
        const size_t planes = strips / strips_of_plane;
        pixels = noise_bytes(row * picture.height * planes, picture.seed);
    }
    unsigned char* next = pixels.data();
    for (uint32_t strip = 0; strip < strips; ++strip) {
        const size_t first = strip % strips_of_plane * rows_per_strip;
        const size_t rows = std::min(rows_per_strip, picture.height - first);
        if (TIFFWriteEncodedStrip(image, strip, next, static_cast<tmsize_t>(rows * row)) < 0) {
            return false;
        }
        next += rows * row;
    }
    return true;
}

std::vector<unsigned char> contents(int fd)
{
    std::vector<unsigned char> bytes(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n =
            pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n <= 0) {
            return {};
        }
        done += static_cast<size_t>(n);
    }
    return bytes;
}

} // namespace

std::vector<unsigned char> noise_bytes(size_t count, unsigned seed)
{
    std::vector<unsigned char> bytes(count);
    uint64_t state = seed * UINT64_C(0x9E3779B97F4A7C15) + 1;
    for (unsigned char& byte : bytes) {
        state = state * UINT64_C(6364136223846793005) + UINT64_C(1442695040888963407);
        byte = static_cast<unsigned char>(state >> 56);
    }
    return bytes;
}

std::vector<unsigned char> encode_tiff(const encoded_tiff& picture)
{
    const int fd = memfd_create("encoded", MFD_CLOEXEC);
    TIFF* image = TIFFFdOpen(dup(fd), "encoded", picture.mode);
    set_tags(image, picture);
    if (picture.photometric == PHOTOMETRIC_PALETTE) {
        set_colours(image, picture.seed);
    }
    const bool written = write_strips(image, picture);
    TIFFClose(image);
    std::vector<unsigned char> bytes = written ? contents(fd) : std::vector<unsigned char>{};
    close(fd);
    return bytes;
}
