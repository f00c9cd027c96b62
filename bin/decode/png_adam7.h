// Interlaced PNG pictures of every colour type, drawn so that a coarse picture can be shown early.
#pragma once

// Decodes the open picture pass by pass into frame 0's planes. Each pass paints its pixels as blocks
// that cover what later passes refine, so that the picture is whole after the first one: it is then
// announced as provisional. The mipmaps are made after passes 1, 3 and 7; the alpha plane may be
// dropped with the first of them.
//
// 0 when the picture was read, also in part: after a library error or with DIE4. -1, with a message
// printed and the reader closed, when it could not be started.
int full_decode_png_rgb_adam7();
