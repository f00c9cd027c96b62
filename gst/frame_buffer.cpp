#include "gst/frame_buffer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "gst/video_format.h"

namespace {

// The memory that holds all planes of a picture. Offsets are relative to its first byte.
struct plane_span {
    const uint8_t* first = nullptr;
    size_t size = 0;
    gsize offset[GST_VIDEO_MAX_PLANES] = {};
    gint stride[GST_VIDEO_MAX_PLANES] = {};
    guint planes = 0;
};

// Of the planes of the format, which the picture has. The library has checked that they lie in one
// area of less than 4 GiB, so nothing here can overflow.
plane_span span_of(const stillimage_picture& picture, const GstVideoInfo& info)
{
    plane_span span;
    span.planes = GST_VIDEO_INFO_N_PLANES(&info);
    const uint8_t* end = nullptr;
    span.first = *std::min_element(picture.plane, picture.plane + span.planes);
    for (size_t i = 0; i < span.planes; ++i) {
        const size_t bytes = size_t{picture.stride[i]} * picture.plane_height[i];
        end = std::max(end, picture.plane[i] + bytes);
        span.offset[i] = static_cast<gsize>(picture.plane[i] - span.first);
        span.stride[i] = static_cast<gint>(picture.stride[i]);
    }
    span.size = static_cast<size_t>(end - span.first);
    return span;
}

bool is_default_layout(const plane_span& span, const GstVideoInfo& info)
{
    return span.size >= info.size &&
           std::equal(span.offset, span.offset + span.planes, info.offset) &&
           std::equal(span.stride, span.stride + span.planes, info.stride);
}

void release_frame(gpointer holder)
{
    delete static_cast<std::shared_ptr<held_frame>*>(holder);
}

uint8_t value_of_absent(int plane)
{
    return plane == STILLIMAGE_A ? 255 : 128;
}

// The sample of a plane for the pixel at x, y; missing chroma repeats its neighbour.
uint8_t sample(const stillimage_picture& picture, int plane, uint32_t x, uint32_t y)
{
    if (picture.plane[plane] == nullptr) {
        return value_of_absent(plane);
    }
    const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
    const uint32_t column = chroma ? x >> picture.chroma_x_shift : x;
    const uint32_t row = chroma ? y >> picture.chroma_y_shift : y;
    return picture.plane[plane][size_t{std::min(row, picture.plane_height[plane] - 1)} *
                                    picture.stride[plane] +
                                std::min(column, picture.plane_width[plane] - 1)];
}

uint8_t* row_of(GstVideoFrame& out, guint plane, size_t row)
{
    return static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&out, plane)) +
           row * static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&out, plane));
}

// A row that is shorter than the format's repeats its last sample; a missing row repeats the last
// one.
void copy_plane(const stillimage_picture& picture, int plane, GstVideoFrame& out)
{
    const auto component = static_cast<guint>(plane);
    const auto width = static_cast<size_t>(GST_VIDEO_FRAME_COMP_WIDTH(&out, component));
    const auto height = static_cast<size_t>(GST_VIDEO_FRAME_COMP_HEIGHT(&out, component));
    const size_t copied = std::min<size_t>(width, picture.plane_width[plane]);
    for (size_t y = 0; y < height; ++y) {
        const size_t from = std::min<size_t>(y, picture.plane_height[plane] - 1);
        const uint8_t* in = picture.plane[plane] + from * picture.stride[plane];
        uint8_t* row = row_of(out, component, y);
        memcpy(row, in, copied);
        memset(row + copied, in[copied - 1], width - copied);
    }
}

void repeat_plane(const stillimage_picture& picture, int plane, GstVideoFrame& out)
{
    for (uint32_t y = 0; y < picture.height; ++y) {
        uint8_t* row = row_of(out, static_cast<guint>(plane), y);
        for (uint32_t x = 0; x < picture.width; ++x) {
            row[x] = sample(picture, plane, x, y);
        }
    }
}

// Interleaves the planes, one after the other: each fills every fourth byte.
void pack_planes(const stillimage_picture& picture, GstVideoFrame& out)
{
    constexpr int order[] = {STILLIMAGE_A, STILLIMAGE_Y, STILLIMAGE_U, STILLIMAGE_V};
    constexpr uint32_t pixel_size = 4;
    for (uint32_t place = 0; place < pixel_size; ++place) {
        const int plane = order[place];
        const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
        const uint32_t x_shift = chroma ? picture.chroma_x_shift : 0;
        const uint32_t y_shift = chroma ? picture.chroma_y_shift : 0;
        const uint8_t* first = picture.plane[plane];
        for (uint32_t y = 0; y < picture.height; ++y) {
            uint8_t* pixel = row_of(out, 0, y) + place;
            const uint32_t row =
                first == nullptr ? 0 : std::min(y >> y_shift, picture.plane_height[plane] - 1);
            const uint8_t* in = first + size_t{row} * picture.stride[plane];
            for (uint32_t x = 0; x < picture.width; ++x, pixel += pixel_size) {
                *pixel = first == nullptr
                             ? value_of_absent(plane)
                             : in[std::min(x >> x_shift, picture.plane_width[plane] - 1)];
            }
        }
    }
}

// Whether the picture has the plane, subsampled as in the format.
bool matches_format(const stillimage_picture& picture, const GstVideoInfo& info, int plane)
{
    const auto component = static_cast<guint>(plane);
    const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
    return picture.plane[plane] != nullptr &&
           (!chroma ||
            (GST_VIDEO_FORMAT_INFO_W_SUB(info.finfo, component) == picture.chroma_x_shift &&
             GST_VIDEO_FORMAT_INFO_H_SUB(info.finfo, component) == picture.chroma_y_shift));
}

void copy_planes(const stillimage_picture& picture, GstVideoFrame& out)
{
    for (int plane = 0; plane < static_cast<int>(GST_VIDEO_FRAME_N_PLANES(&out)); ++plane) {
        if (matches_format(picture, out.info, plane)) {
            copy_plane(picture, plane, out);
        } else {
            repeat_plane(picture, plane, out);
        }
    }
}

} // namespace

bool can_share(const held_frame& frame, const GstVideoInfo& info, bool video_meta)
{
    const stillimage_picture& picture = frame.picture();
    return format_of(picture, GST_VIDEO_INFO_HAS_ALPHA(&info)).layout == plane_layout::SHARED &&
           (video_meta || is_default_layout(span_of(picture, info), info));
}

GstBuffer* share_frame(const std::shared_ptr<held_frame>& frame, const GstVideoInfo& info)
{
    const stillimage_picture& picture = frame->picture();
    plane_span span = span_of(picture, info); // not const: the video meta takes plain pointers
    const bool is_default = is_default_layout(span, info);
    // GST_MEMORY_FLAG_READONLY protects the worker's memory, in spite of the cast.
    GstBuffer* buffer = gst_buffer_new_wrapped_full(
        GST_MEMORY_FLAG_READONLY, const_cast<uint8_t*>(span.first), span.size, 0,
        is_default ? info.size : span.size, new std::shared_ptr<held_frame>(frame), release_frame);
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                   picture.width, picture.height, span.planes, span.offset,
                                   span.stride);
    return buffer;
}

GstBuffer* copy_frame(const held_frame& frame, const GstVideoInfo& info)
{
    // GStreamer's own allocator ends the application if memory is short. Padding stays 0.
    void* memory = g_try_malloc0(info.size);
    if (memory == nullptr) {
        return nullptr;
    }
    GstBuffer* buffer = gst_buffer_new_wrapped(memory, info.size);
    GstVideoFrame out;
    if (!gst_video_frame_map(&out, &info, buffer, GST_MAP_WRITE)) {
        gst_buffer_unref(buffer);
        return nullptr;
    }
    if (GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_AYUV) {
        pack_planes(frame.picture(), out);
    } else {
        copy_planes(frame.picture(), out);
    }
    gst_video_frame_unmap(&out);
    return buffer;
}
