// A frame as a client receives it: the worker's message and its record, both from the input. An
// accepted picture can be read sample by sample, and converted into every kind of file.
//
// Input: the body of a FRAME packet (80 bytes), with scanline size and area size limited to the
// rest of the input; then the record, which is at the same time the area with the planes.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "client/scanline_record.h"
#include "client/tool/picture_files.h"
#include "client/tool/y4m.h"
#include "fuzz/require.h"

namespace {

constexpr size_t body_size = 80;
constexpr uint64_t max_pixels = 1 << 16; // larger pictures are not converted

// Reads every sample.
uint32_t read_planes(const stillimage_picture& picture)
{
    uint32_t sum = 0;
    for (size_t p = 0; p < STILLIMAGE_PLANES; ++p) {
        for (uint32_t y = 0; y < picture.plane_height[p]; ++y) {
            const uint8_t* row = picture.plane[p] + uint64_t{y} * picture.stride[p];
            for (uint32_t x = 0; x < picture.stride[p]; ++x) {
                sum += row[x];
            }
        }
        require(picture.plane_width[p] <= picture.stride[p]);
    }
    return sum;
}

// Scales to a size that depends on the picture: narrower and, if low enough, higher.
void scale(const stillimage_picture& picture)
{
    const uint32_t width = picture.width / 3 + 1;
    const uint32_t height = std::min(picture.height * 2 - 1, 300U);
    std::vector<uint8_t> pixels(size_t{width} * height * 4);
    stillimage_picture_to_pixels(&picture, STILLIMAGE_RGBA32, width, height, pixels.data(),
                                 size_t{width} * 4);
}

void convert(const stillimage_picture& picture)
{
    if (uint64_t{picture.width} * picture.height <= max_pixels) {
        png_file(picture);
        ppm_file(picture);
        y4m_file(picture);
        scale(picture);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    comm_protocol::frame message;
    if (!comm_protocol::decode(data, std::min(size, body_size), &message)) {
        return 0;
    }
    const uint8_t* rest = data + body_size;
    const size_t left = size - body_size;
    // A client checks these limits before it reads the record.
    message.scanline_size = std::min<uint64_t>(message.scanline_size, left);
    message.area_size = std::min<uint64_t>(message.area_size, left);
    const auto area = std::make_unique<uint8_t[]>(message.area_size);
    std::copy_n(rest, message.area_size, area.get());
    stillimage_picture picture;
    std::string reason;
    if (describe_picture(rest, message.scanline_size, message, area.get(), &picture, &reason)) {
        volatile uint32_t sum = read_planes(picture);
        static_cast<void>(sum);
        convert(picture);
    } else {
        require(!reason.empty());
    }
    return 0;
}
