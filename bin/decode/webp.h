// WebP: the library writes planar rows straight into the frame buffer, in one call.
#pragma once

// Decodes the bytes that examination has left in memory (webp_image), frees them and prints the
// outcome. Returns 0, also when the bitstream was bad: the planes then hold what could be decoded,
// on black. Returns -1 when the library or the planes could not be set up: nothing was drawn and no
// progress reported.
int full_decode_webp_yuv();
