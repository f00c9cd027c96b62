// WebP: the library draws planar rows straight into the frame buffer, in one call.
#pragma once

// Decodes the bytes in memory (webp_image), which examination has left, and frees them. Tells its
// outcome itself. 0, also when the bitstream was bad: the planes then hold what could be decoded on
// black. -1 when the library or the planes could not be set up: nothing was drawn, no progress told.
int full_decode_webp_yuv();
