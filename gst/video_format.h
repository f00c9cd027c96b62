// The raw video format of a picture, and how its planes are converted to it.
#pragma once

#include <gst/video/video.h>

#include "client/stillimage_client.h"

// SHARED: the format has the same planes, so they need no copy. REPEATED: they are copied, and
// missing samples repeat their neighbours; chroma with a subsampling that no format has becomes
// 4:4:4. PACKED: alpha with chroma that is not 4:2:0 is interleaved with it.
enum class plane_layout { SHARED, REPEATED, PACKED };

struct frame_format {
    GstVideoFormat format = GST_VIDEO_FORMAT_UNKNOWN;
    plane_layout layout = plane_layout::SHARED;
};

// `alpha`: whether the stream has alpha. A frame of an animation may have no alpha plane although
// others do; it is then opaque.
frame_format format_of(const stillimage_picture& picture, bool alpha);

// Format, size, pixel aspect ratio, colorimetry and chroma site of the picture. The frame rate is
// 0/1. False, with *info unspecified, if raw video cannot have frames of this size.
bool video_info_of(const stillimage_picture& picture, bool alpha, GstVideoInfo* info);

// Whether raw video of the format of `info` can have frames of this size.
bool is_video_size(const GstVideoInfo& info, int width, int height);

// Whether format, size and pixel aspect ratio are the same.
bool same_video(const GstVideoInfo& one, const GstVideoInfo& other);
