// GIF: the whole picture loaded with giflib, and the handle's clean-up.
#pragma once

#include <gif_lib.h>

// The loaded picture, or null; written by this unit. Its list has every frame that the frame buffer
// can hold, as bin/examine/gif_loading.h describes them, and none when nothing will be decoded;
// image_decoded_frames counts them all.
extern GifFileType* gif_image;

// 0 with the picture loaded and the image state set; 1 with everything closed and a message
// printed, or with DIE4 set. When a picture is open already: a message, 1, and nothing touched.
int examine_gif_file();

void free_all_gif(); // closes the handle; may be called at any time and twice
