// PNG: opens the picture with libpng, examines its header, and closes the reader.
//
// After a successful examination the reader is positioned at the first row and set up to deliver
// every sample as one byte: 16 bits are scaled to 8; samples of fewer than 8 bits are unpacked, not
// scaled.
#pragma once

#include <cstdio>

#include <png.h>

// The open picture; all null when there is none. Written by this unit.
extern FILE* png_fp;
extern png_structp png_context;
extern png_infop png_context_info;
extern png_infop png_context_end; // never created; the library's destroy call takes its address

// The values of the file's header. Written by examine_png_file; zero while no picture is open.
extern png_uint_32 png_width;
extern png_uint_32 png_height;
extern int png_bit_depth;
extern int png_color_type;
extern int png_interlace_method; // 0 none, 1 Adam7
extern int png_compression_method;
extern int png_filter_method;

// Returns 0 with the reader open and the image state set; -1 with everything closed, after a
// message. When a picture is open already, prints a message, changes nothing and returns -1.
int examine_png_file();

// True for a size that can be served.
bool png_size_is_acceptable(png_uint_32 width, png_uint_32 height);

// Disarms the jump: from now on a library error prints a message and ends the process. A function
// that arms png_jmpbuf(png_context) calls this before it returns. Needs an open reader.
void png_abort_unexpected();

// Print a message of the library as one line. Both return; after an error the library then jumps by
// itself.
void png_error_cb(png_structp context, png_const_charp message);
void png_warning_cb(png_structp context, png_const_charp message);

void free_all_png_fileio(); // closes the reader, if open; may run twice
