// A held frame as a GstBuffer, with its planes shared if possible, else copied.
#pragma once

#include <gst/video/video.h>
#include <memory>

#include "gst/worker_link.h"

// In all functions `info` describes the stream, and the frame's picture fits it.

// Whether `frame` can be passed downstream in the worker's memory. If downstream does not support
// GstVideoMeta, its planes have to have the default layout of the format.
bool can_share(const held_frame& frame, const GstVideoInfo& info, bool video_meta);

// A read-only buffer over the frame's own planes. The frame is released with the last reference to
// the memory, in any thread.
GstBuffer* share_frame(const std::shared_ptr<held_frame>& frame, const GstVideoInfo& info);

// A copy in the layout of `info`. Null if memory is short.
GstBuffer* copy_frame(const held_frame& frame, const GstVideoInfo& info);
