// Composing an animation: frames drawn onto a canvas of the screen's size, in four-byte pixels.
//
// Drawing does not depend on what the four bytes mean. The decoder's canvas holds converted pixels
// (Y, U, V, A), so a colour is converted once per frame and not once per pixel. The functions named
// after RGBA draw R, G, B, A with the same algorithm.
//
// The screen, its background and the global colours are those of gif_image.
#pragma once

#include <cstddef>

#include <gif_lib.h>

struct gif_pixel {
    unsigned char part[4];
};
static_assert(sizeof(gif_pixel) == 4);

struct gif_pixel_form {
    gif_pixel cleared;                               // black, transparent
    gif_pixel (*opaque)(const GifColorType& colour); // with alpha 255
};

extern const gif_pixel_form gif_rgba_form; // R, G, B, A
extern const gif_pixel_form gif_yuva_form; // Y, U, V in video range, A; cleared is 16, 128, 128, 0

// At least as wide and high as the screen; columns beyond the screen are never coloured.
struct gif_canvas {
    unsigned char* pixels;
    size_t pitch; // bytes from row to row
    const gif_pixel_form* form;
};

// The transparent index that a frame declared last, in this picture or an earlier one. It stays
// transparent in frames that declare none. Written by draw_gif_frame.
extern bool gif_last_transparency;
extern unsigned char gif_last_transparent_color;

// Draws a frame, clipped to the screen; with `first` it prepares the screen before. A frame without
// colours leaves the canvas as it is; a frame without a raster adds no pixels. Serves the comm
// socket every 64 rows; DIE4 ends it early.
void draw_gif_frame(const gif_canvas& canvas, const SavedImage& frame, bool first);

// Restores the frame's rectangle to the background: cleared when the frame declares a transparent
// index, otherwise the background colour.
void restore_gif_background(const gif_canvas& canvas, const SavedImage& frame);

// Fills the first `rows` rows of the canvas, padding included, with cleared pixels.
void clear_gif_rows(const gif_canvas& canvas, size_t rows);

// The same on a canvas of R, G, B, A.
// NOLINTBEGIN(readability-identifier-naming): given names
void gif_to_RGBA(unsigned char* rgba, unsigned long pitch, SavedImage* image, bool first);
void gif_RGBA_bgcolor(unsigned char* rgba, unsigned long pitch, SavedImage* image);
// NOLINTEND(readability-identifier-naming)

// To be called after each row of long work: serves the comm socket every 64 rows. False once a
// signal has asked the process to end.
bool go_on_after_gif_row(size_t row);

void reset_gif_canvas(); // back to the values at program start
