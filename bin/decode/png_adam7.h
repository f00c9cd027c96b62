// Interlaced PNG pictures of every colour type, drawn so that a coarse picture can be shown early.
#pragma once

// Decodes the open picture pass by pass into frame 0's planes. Each pass paints its pixels as
// blocks that cover what later passes refine, so the picture is complete after the first pass; it
// is then announced as provisional. Mipmaps are generated after passes 1, 3 and 7; the first of
// these may drop the alpha plane.
//
// Returns 0 when the picture was read, also in part: after a library error or with DIE4. Returns
// -1, with a message printed and the reader closed, when decoding could not be started.
int full_decode_png_rgb_adam7();
