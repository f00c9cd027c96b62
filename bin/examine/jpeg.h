// Examination of a JPEG file: whether its picture can be shown, and how the library delivers it
// (always as raw component planes at their own resolution).
#pragma once

#include <cstdio>

#include <jpeglib.h>

// Opens the picture and reads its header. Returns 0 with the picture's size, chroma shifts, alpha
// and monochrome flags in the image state, and with the library objects of jpeg_reader.h open for a
// decoder. Returns -1 after a message, with everything closed.
int examine_jpeg_file();

// Steps of the header check; each prints what it finds. Return 0, or -1 after a message.
int choose_jpeg_output(jpeg_decompress_struct* cinfo);
int find_jpeg_chroma_shifts(const jpeg_decompress_struct& cinfo);
