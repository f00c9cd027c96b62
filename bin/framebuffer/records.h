// The mipmap_image records of every frame, and their scanline lists.
#pragma once

// Fills main_image_mipmap and, for an animation, the records of frames 1, 2, ... from the layout,
// and writes the scanline list of every record; a list that fails is reported and skipped. To be
// called once the frame buffer is allocated. With DIE4 further frames may stay without a list.
// Returns -1 when there is no memory for the records: "CNB allocation failed" is printed, and the
// run ends.
int build_picture_records();
