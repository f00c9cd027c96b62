// The GObject side of the element `stillimagesrc`.
#pragma once

#include <gst/gst.h>

GType stillimage_src_get_type();
