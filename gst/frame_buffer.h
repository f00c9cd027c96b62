// A held frame as a GstBuffer: its planes shared, or copied where they cannot be.
#pragma once

#include <gst/video/video.h>
#include <memory>

#include "gst/worker_link.h"

// `info` is the stream's, and the frame's picture fits it.

// Whether `frame` can be handed on as it lies in the worker's memory. Without GstVideoMeta
// downstream, only when it lies there just as the format's own layout would have it.
bool can_share(const held_frame& frame, const GstVideoInfo& info, bool video_meta);

// A buffer of the frame's planes as they are, read-only. The frame is held until the last user of the
// memory has let go, in whichever thread that is.
GstBuffer* share_frame(const std::shared_ptr<held_frame>& frame, const GstVideoInfo& info);

// A buffer of its own in the layout of `info`. Null when memory is short.
GstBuffer* copy_frame(const held_frame& frame, const GstVideoInfo& info);
