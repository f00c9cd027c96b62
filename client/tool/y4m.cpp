#include "client/tool/y4m.h"

#include <algorithm>
#include <numeric>

struct y4m_kind {
    const char* tag;
    unsigned x_shift; // chroma subsampling of the file
    unsigned y_shift;
    bool chroma;
    bool alpha;
};

namespace {

constexpr y4m_kind mono = {"Cmono", 0, 0, false, false};
constexpr y4m_kind alpha = {"C444alpha", 0, 0, true, true};
constexpr y4m_kind full_chroma = {"C444", 0, 0, true, false};
constexpr y4m_kind subsampled[] = {{"C420jpeg", 1, 1, true, false}, {"C422", 1, 0, true, false}};

const y4m_kind& kind_of(const stillimage_picture& picture)
{
    if (picture.plane[STILLIMAGE_A] != nullptr) {
        return alpha;
    }
    if (picture.plane[STILLIMAGE_U] == nullptr) {
        return mono;
    }
    for (const y4m_kind& kind : subsampled) {
        if (picture.chroma_x_shift == kind.x_shift && picture.chroma_y_shift == kind.y_shift) {
            return kind;
        }
    }
    return full_chroma;
}

// Pixel aspect ratio that gives the picture its display aspect ratio; readers take 31 bits.
std::string pixel_aspect(const stillimage_picture& picture)
{
    constexpr int64_t most = INT32_MAX;
    if (picture.aspect_numerator > most || picture.aspect_denominator > most) {
        return "1:1";
    }
    const int64_t across = picture.aspect_numerator * picture.full_height;
    const int64_t down = picture.aspect_denominator * picture.full_width;
    const int64_t common = std::gcd(across, down);
    if (across / common > most || down / common > most) {
        return "1:1";
    }
    return std::to_string(across / common) + ":" + std::to_string(down / common);
}

// One row of `width` samples, each sample of the picture repeated 1 << repeat times. A row that ends
// early goes on with its last sample.
void put_row(const uint8_t* row, uint32_t samples, uint32_t width, unsigned repeat, char* to)
{
    if (repeat == 0) {
        const uint32_t whole = std::min(width, samples);
        std::copy_n(row, whole, to);
        std::fill(to + whole, to + width, static_cast<char>(row[samples - 1]));
        return;
    }
    for (uint32_t x = 0; x < width; ++x) {
        to[x] = static_cast<char>(row[std::min(x >> repeat, samples - 1)]);
    }
}

// An absent plane is neutral: gray without chroma, opaque without alpha.
void add_plane(const stillimage_picture& picture, int plane, uint32_t width, uint32_t height,
               unsigned x_repeat, unsigned y_repeat, std::string* stream)
{
    const size_t start = stream->size();
    if (picture.plane[plane] == nullptr) {
        stream->append(size_t{width} * height, plane == STILLIMAGE_A ? '\xFF' : '\x80');
        return;
    }
    stream->resize(start + size_t{width} * height);
    char* to = stream->data() + start;
    for (uint32_t y = 0; y < height; ++y, to += width) {
        const uint64_t row = std::min(y >> y_repeat, picture.plane_height[plane] - 1);
        put_row(picture.plane[plane] + row * picture.stride[plane], picture.plane_width[plane],
                width, x_repeat, to);
    }
}

void add_chroma(const stillimage_picture& picture, const y4m_kind& kind, std::string* stream)
{
    const uint32_t width = (picture.width + (1U << kind.x_shift) - 1) >> kind.x_shift;
    const uint32_t height = (picture.height + (1U << kind.y_shift) - 1) >> kind.y_shift;
    for (const int plane : {STILLIMAGE_U, STILLIMAGE_V}) {
        add_plane(picture, plane, width, height, picture.chroma_x_shift - kind.x_shift,
                  picture.chroma_y_shift - kind.y_shift, stream);
    }
}

} // namespace

y4m_shape y4m_shape_of(const stillimage_picture& picture)
{
    return {picture.width, picture.height, &kind_of(picture)};
}

bool y4m_fits(const stillimage_picture& picture, const y4m_shape& shape)
{
    return picture.width == shape.width && picture.height == shape.height &&
           (shape.kind->alpha || &kind_of(picture) == shape.kind);
}

std::string y4m_header(const stillimage_picture& picture, const y4m_shape& shape,
                       const rate& frames_a_second)
{
    return "YUV4MPEG2 W" + std::to_string(picture.width) + " H" + std::to_string(picture.height) +
           " F" + std::to_string(frames_a_second.numerator) + ":" +
           std::to_string(frames_a_second.denominator) + " Ip A" + pixel_aspect(picture) + " " +
           shape.kind->tag + " XCOLORRANGE=LIMITED\n";
}

void add_y4m_frame(const stillimage_picture& picture, const y4m_shape& shape, std::string* stream)
{
    const y4m_kind& kind = *shape.kind;
    *stream += "FRAME\n";
    add_plane(picture, STILLIMAGE_Y, picture.width, picture.height, 0, 0, stream);
    if (kind.chroma) {
        add_chroma(picture, kind, stream);
    }
    if (kind.alpha) {
        add_plane(picture, STILLIMAGE_A, picture.width, picture.height, 0, 0, stream);
    }
}

std::string y4m_file(const stillimage_picture& picture)
{
    const y4m_shape shape = y4m_shape_of(picture);
    std::string file = y4m_header(picture, shape, {25, 1});
    add_y4m_frame(picture, shape, &file);
    return file;
}
