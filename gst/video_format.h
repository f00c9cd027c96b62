// Which raw video format stands for a picture, and how its planes get there.
#pragma once

#include <gst/video/video.h>

#include "client/stillimage_client.h"

// Planes go as they are wherever a format has them so. The others are copied: chroma that no format
// subsamples alike is repeated to full size; alpha over chroma that is not 4:2:0 is packed.
enum class plane_layout { SHARED, REPEATED, PACKED };

struct frame_format {
    GstVideoFormat format = GST_VIDEO_FORMAT_UNKNOWN;
    plane_layout layout = plane_layout::SHARED;
};

// `alpha`: of the stream. A frame of an animation may come without an alpha plane where others have
// one; it is opaque then.
frame_format format_of(const stillimage_picture& picture, bool alpha);

// Format, size, pixel aspect ratio, colorimetry and chroma site of the picture; the frame rate is 0.
GstVideoInfo video_info_of(const stillimage_picture& picture, bool alpha);

// Whether the two differ in anything but the frame rate.
bool same_video(const GstVideoInfo& one, const GstVideoInfo& other);
