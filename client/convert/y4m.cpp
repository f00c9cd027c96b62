#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "client/convert/picture_check.h"
#include "client/products.h"
#include "client/stillimage_client.h"

namespace {

struct y4m_kind {
    uint32_t number;
    const char* tag;
    unsigned x_shift; // chroma subsampling of the file
    unsigned y_shift;
    bool chroma;
    bool alpha;
};

constexpr y4m_kind kinds[] = {{STILLIMAGE_Y4M_MONO, "Cmono", 0, 0, false, false},
                              {STILLIMAGE_Y4M_420, "C420jpeg", 1, 1, true, false},
                              {STILLIMAGE_Y4M_422, "C422", 1, 0, true, false},
                              {STILLIMAGE_Y4M_444, "C444", 0, 0, true, false},
                              {STILLIMAGE_Y4M_444_ALPHA, "C444alpha", 0, 0, true, true}};

constexpr char frame_start[] = "FRAME\n";
constexpr size_t frame_start_size = sizeof frame_start - 1;

const y4m_kind* find_kind(uint32_t number)
{
    for (const y4m_kind& kind : kinds) {
        if (kind.number == number) {
            return &kind;
        }
    }
    return nullptr;
}

uint32_t kind_of(const stillimage_picture& picture)
{
    if (picture.plane[STILLIMAGE_A] != nullptr) {
        return STILLIMAGE_Y4M_444_ALPHA;
    }
    if (picture.plane[STILLIMAGE_U] == nullptr) {
        return STILLIMAGE_Y4M_MONO;
    }
    if (picture.chroma_x_shift == 1 && picture.chroma_y_shift <= 1) {
        return picture.chroma_y_shift == 1 ? STILLIMAGE_Y4M_420 : STILLIMAGE_Y4M_422;
    }
    return STILLIMAGE_Y4M_444;
}

const y4m_kind* kind_of_stream(const stillimage_y4m_stream* stream)
{
    return stream != nullptr && is_extent(stream->width, stream->height) ? find_kind(stream->kind)
                                                                         : nullptr;
}

// Whether an object in memory can hold a frame: four planes, of which the first is the largest.
bool fits_memory(const stillimage_y4m_stream& stream)
{
    constexpr size_t max_plane = (PTRDIFF_MAX - frame_start_size) / STILLIMAGE_PLANES;
    size_t luma = 0;
    return multiply(stream.width, stream.height, &luma) && luma <= max_plane;
}

struct pixel_shape {
    int64_t across = 1;
    int64_t down = 1;
};

// The pixel aspect ratio that gives the picture its display aspect ratio. Readers accept 31 bits; a
// ratio beyond that becomes 1:1.
pixel_shape pixel_aspect(const stillimage_picture& picture)
{
    constexpr int64_t max_term = INT32_MAX;
    const int64_t numerator = picture.aspect_numerator;
    const int64_t denominator = picture.aspect_denominator;
    if (numerator < 1 || denominator < 1 || numerator > max_term || denominator > max_term ||
        !is_extent(picture.full_width, picture.full_height)) {
        return {};
    }
    const int64_t across = numerator * picture.full_height;
    const int64_t down = denominator * picture.full_width;
    const int64_t common = std::gcd(across, down);
    if (across / common > max_term || down / common > max_term) {
        return {};
    }
    return {across / common, down / common};
}

struct plane_size {
    size_t width;
    size_t height;
    size_t bytes() const { return width * height; }
};

plane_size chroma_size(const stillimage_y4m_stream& stream, const y4m_kind& kind)
{
    return {(size_t{stream.width} + (1U << kind.x_shift) - 1) >> kind.x_shift,
            (size_t{stream.height} + (1U << kind.y_shift) - 1) >> kind.y_shift};
}

// Writes a row of `width` samples, with each sample of the picture repeated 1 << `repeat` times.
// The last sample of a short row is repeated.
void put_row(const uint8_t* row, size_t samples, size_t width, unsigned repeat, uint8_t* to)
{
    const size_t whole = std::min(width, samples << repeat);
    if (repeat == 0) {
        memcpy(to, row, whole);
    }
    for (size_t x = 0; repeat != 0 && x < whole; ++x) {
        to[x] = row[x >> repeat];
    }
    std::fill(to + whole, to + width, row[samples - 1]);
}

struct repetition {
    unsigned across = 0; // log2
    unsigned down = 0;
};

// Returns the end of the written plane. An absent plane is filled with a neutral value: grey for
// chroma, opaque for alpha.
uint8_t* put_plane(const stillimage_picture& picture, int plane, plane_size size, repetition repeat,
                   uint8_t* to)
{
    if (picture.plane[plane] == nullptr) {
        const uint8_t neutral = plane == STILLIMAGE_A ? 255 : 128;
        return std::fill_n(to, size.bytes(), neutral);
    }
    for (size_t y = 0; y < size.height; ++y, to += size.width) {
        const size_t row = std::min<size_t>(y >> repeat.down, picture.plane_height[plane] - 1);
        put_row(picture.plane[plane] + row * picture.stride[plane], picture.plane_width[plane],
                size.width, repeat.across, to);
    }
    return to;
}

void put_frame(const stillimage_picture& picture, const stillimage_y4m_stream& stream,
               const y4m_kind& kind, uint8_t* to)
{
    const plane_size luma = {stream.width, stream.height};
    memcpy(to, frame_start, frame_start_size);
    to = put_plane(picture, STILLIMAGE_Y, luma, {}, to + frame_start_size);
    if (kind.chroma) {
        const plane_size size = chroma_size(stream, kind);
        const repetition repeat = {picture.chroma_x_shift - kind.x_shift,
                                   picture.chroma_y_shift - kind.y_shift};
        to = put_plane(picture, STILLIMAGE_U, size, repeat, to);
        to = put_plane(picture, STILLIMAGE_V, size, repeat, to);
    }
    if (kind.alpha) {
        put_plane(picture, STILLIMAGE_A, luma, {}, to);
    }
}

} // namespace

stillimage_result stillimage_y4m_stream_of(const stillimage_picture* picture,
                                           stillimage_y4m_stream* stream)
{
    if (!can_convert(picture) || stream == nullptr) {
        return STILLIMAGE_ERROR_ARGUMENT;
    }
    *stream = {picture->width, picture->height, kind_of(*picture)};
    return STILLIMAGE_OK;
}

int stillimage_y4m_fits(const stillimage_picture* picture, const stillimage_y4m_stream* stream)
{
    const y4m_kind* kind = kind_of_stream(stream);
    return kind != nullptr && can_convert(picture) && picture->width == stream->width &&
                   picture->height == stream->height &&
                   (kind->alpha || kind_of(*picture) == kind->number)
               ? 1
               : 0;
}

stillimage_result stillimage_y4m_header(const stillimage_picture* picture,
                                        const stillimage_y4m_stream* stream,
                                        uint32_t rate_numerator, uint32_t rate_denominator,
                                        char* buffer, size_t size)
{
    const y4m_kind* kind = kind_of_stream(stream);
    if (picture == nullptr || kind == nullptr || rate_numerator == 0 || rate_denominator == 0 ||
        buffer == nullptr) {
        return STILLIMAGE_ERROR_ARGUMENT;
    }
    const pixel_shape aspect = pixel_aspect(*picture);
    const int length = snprintf(buffer, size,
                                "YUV4MPEG2 W%" PRIu32 " H%" PRIu32 " F%" PRIu32 ":%" PRIu32
                                " Ip A%" PRId64 ":%" PRId64 " %s XCOLORRANGE=LIMITED\n",
                                stream->width, stream->height, rate_numerator, rate_denominator,
                                aspect.across, aspect.down, kind->tag);
    return length >= 0 && static_cast<size_t>(length) < size ? STILLIMAGE_OK
                                                             : STILLIMAGE_ERROR_ARGUMENT;
}

size_t stillimage_y4m_frame_size(const stillimage_y4m_stream* stream)
{
    const y4m_kind* kind = kind_of_stream(stream);
    if (kind == nullptr || !fits_memory(*stream)) {
        return 0;
    }
    const size_t luma = size_t{stream->width} * stream->height;
    return frame_start_size + luma * (kind->alpha ? 2 : 1) +
           (kind->chroma ? 2 * chroma_size(*stream, *kind).bytes() : 0);
}

stillimage_result stillimage_y4m_frame(const stillimage_picture* picture,
                                       const stillimage_y4m_stream* stream, uint8_t* buffer,
                                       size_t size)
{
    const size_t frame_size = stillimage_y4m_frame_size(stream);
    if (stillimage_y4m_fits(picture, stream) == 0 || buffer == nullptr || frame_size == 0 ||
        size < frame_size) {
        return STILLIMAGE_ERROR_ARGUMENT;
    }
    put_frame(*picture, *stream, *find_kind(stream->kind), buffer);
    return STILLIMAGE_OK;
}
