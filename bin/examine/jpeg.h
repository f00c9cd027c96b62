// Examination of a JPEG file: whether its picture can be shown, and how the library is to deliver
// it (always as raw component planes at their own resolution).
#pragma once

#include <cstdio>

#include <jpeglib.h>

// Opens the picture and reads its header. 0: the picture's size, chroma shifts, alpha and
// monochrome flags are in the image state, and the library objects of jpeg_reader.h stay open for a
// decoder. -1: a line on standard error says why, and nothing is left open.
int examine_jpeg_file();

// The steps that judge a header; each prints what it finds. 0, or -1 with the reason printed.
int choose_jpeg_output(jpeg_decompress_struct* cinfo);
int find_jpeg_chroma_shifts(const jpeg_decompress_struct& cinfo);
