// The element `stillimagesrc`: its GObject side.
#pragma once

#include <gst/gst.h>

GType stillimage_src_get_type();
