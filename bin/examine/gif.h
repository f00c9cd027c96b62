// GIF: loads the whole picture with giflib, and closes it.
#pragma once

#include <gif_lib.h>

// The loaded picture, or null; written by this unit. Its list holds as many frames as fit the frame
// buffer, in the form that bin/examine/gif_loading.h describes, and none when nothing will be
// decoded. image_decoded_frames counts all frames of the file.
extern GifFileType* gif_image;

// Returns 0 with the picture loaded and the image state set; 1 with everything closed, after a
// message or when DIE4 is set. When a picture is open already, prints a message, changes nothing
// and returns 1.
int examine_gif_file();

void free_all_gif(); // closes the picture, if any; may run twice
