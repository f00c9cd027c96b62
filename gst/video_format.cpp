#include "gst/video_format.h"

#include <climits>
#include <cstdint>
#include <utility>

namespace {

struct planar_format {
    uint8_t chroma_x_shift;
    uint8_t chroma_y_shift;
    bool alpha;
    GstVideoFormat format;
};

// The planar 8-bit formats of raw video.
constexpr planar_format planar_formats[] = {
    {0, 0, false, GST_VIDEO_FORMAT_Y444}, {1, 0, false, GST_VIDEO_FORMAT_Y42B},
    {1, 1, false, GST_VIDEO_FORMAT_I420}, {1, 1, true, GST_VIDEO_FORMAT_A420},
    {2, 0, false, GST_VIDEO_FORMAT_Y41B}, {2, 2, false, GST_VIDEO_FORMAT_YUV9},
};

// Raw video rounds the size of chroma up.
bool covers(uint32_t samples, uint32_t pixels, uint8_t shift)
{
    return uint64_t{samples} << shift >= pixels;
}

bool is_complete(const stillimage_picture& picture, int plane)
{
    return covers(picture.plane_width[plane], picture.width, picture.chroma_x_shift) &&
           covers(picture.plane_height[plane], picture.height, picture.chroma_y_shift);
}

// Only range and matrix are known.
GstVideoColorimetry colorimetry()
{
    return {GST_VIDEO_COLOR_RANGE_16_235, GST_VIDEO_COLOR_MATRIX_BT601, GST_VIDEO_TRANSFER_UNKNOWN,
            GST_VIDEO_COLOR_PRIMARIES_UNKNOWN};
}

// In lowest terms. A ratio that ints cannot hold is approximated.
void set_pixel_aspect(const stillimage_picture& picture, GstVideoInfo* info)
{
    using wide = unsigned __int128;
    wide numerator = static_cast<wide>(picture.aspect_numerator) * picture.full_height;
    wide denominator = static_cast<wide>(picture.aspect_denominator) * picture.full_width;
    wide a = numerator;
    wide b = denominator;
    while (b != 0) {
        a = std::exchange(b, a % b);
    }
    numerator /= a;
    denominator /= a;
    while (numerator > INT_MAX || denominator > INT_MAX) {
        numerator /= 2;
        denominator /= 2;
    }
    info->par_n = numerator == 0 ? 1 : static_cast<int>(numerator);
    info->par_d = denominator == 0 ? 1 : static_cast<int>(denominator);
}

} // namespace

frame_format format_of(const stillimage_picture& picture, bool alpha)
{
    const bool chroma = picture.plane[STILLIMAGE_U] != nullptr;
    const bool has_needed_alpha = !alpha || picture.plane[STILLIMAGE_A] != nullptr;
    if (!chroma && !alpha) {
        return {GST_VIDEO_FORMAT_GRAY8, plane_layout::SHARED};
    }
    for (const planar_format& row : planar_formats) {
        if (chroma && row.alpha == alpha && row.chroma_x_shift == picture.chroma_x_shift &&
            row.chroma_y_shift == picture.chroma_y_shift) {
            const bool shared = has_needed_alpha && is_complete(picture, STILLIMAGE_U) &&
                                is_complete(picture, STILLIMAGE_V);
            return {row.format, shared ? plane_layout::SHARED : plane_layout::REPEATED};
        }
    }
    return alpha ? frame_format{GST_VIDEO_FORMAT_AYUV, plane_layout::PACKED}
                 : frame_format{GST_VIDEO_FORMAT_Y444, plane_layout::REPEATED};
}

bool video_info_of(const stillimage_picture& picture, bool alpha, GstVideoInfo* info)
{
    gst_video_info_init(info);
    if (!gst_video_info_set_format(info, format_of(picture, alpha).format, picture.width,
                                   picture.height)) {
        return false;
    }
    info->colorimetry = colorimetry();
    const bool subsampled =
        GST_VIDEO_FORMAT_INFO_W_SUB(info->finfo, 1) != 0 && GST_VIDEO_INFO_IS_YUV(info);
    info->chroma_site = subsampled ? GST_VIDEO_CHROMA_SITE_JPEG : GST_VIDEO_CHROMA_SITE_UNKNOWN;
    set_pixel_aspect(picture, info);
    info->fps_n = 0;
    info->fps_d = 1;
    return true;
}

bool is_video_size(const GstVideoInfo& info, int width, int height)
{
    GstVideoInfo sized;
    gst_video_info_init(&sized);
    return gst_video_info_set_format(&sized, GST_VIDEO_INFO_FORMAT(&info),
                                     static_cast<guint>(width),
                                     static_cast<guint>(height)) != FALSE;
}

bool same_video(const GstVideoInfo& one, const GstVideoInfo& other)
{
    return GST_VIDEO_INFO_FORMAT(&one) == GST_VIDEO_INFO_FORMAT(&other) &&
           one.width == other.width && one.height == other.height && one.par_n == other.par_n &&
           one.par_d == other.par_d;
}
