// PNG: opening the picture with libpng, its header, and the reader's clean-up.
//
// After a successful examination the reader stands before the first row, set up so that every
// sample arrives as one byte: 16 bits are scaled to 8, and samples below 8 bits are unpacked, not
// scaled.
#pragma once

#include <cstdio>

#include <png.h>

// The open picture; all null while there is none. Written by this unit.
extern FILE* png_fp;
extern png_structp png_context;
extern png_infop png_context_info;
extern png_infop png_context_end; // never created; the library's destroy call wants its address

// The header as the file has it. Written by examine_png_file; zero while no picture is open.
extern png_uint_32 png_width;
extern png_uint_32 png_height;
extern int png_bit_depth;
extern int png_color_type;
extern int png_interlace_method; // 0 none, 1 Adam7
extern int png_compression_method;
extern int png_filter_method;

// 0 with the reader open and the image state set; -1 with everything closed and a message printed.
// When a picture is open already: a message, -1, and nothing touched.
int examine_png_file();

// True for a size that is served.
bool png_size_is_acceptable(png_uint_32 width, png_uint_32 height);

// Ends the time in which a library error may jump: from here on one ends the process with a
// message. Whoever arms png_jmpbuf(png_context) calls this before its frame returns. Needs an open
// reader.
void png_abort_unexpected();

// The library's messages, one line each. Both return; the library then unwinds by itself.
void png_error_cb(png_structp context, png_const_charp message);
void png_warning_cb(png_structp context, png_const_charp message);

void free_all_png_fileio(); // closes the reader; may be called at any time and twice
