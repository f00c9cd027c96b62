// A served picture as a file that other programs open.
#pragma once

#include <string>

#include "client/stillimage_client.h"

// The whole file, or empty when there is no memory for it.
std::string png_file(const stillimage_picture& picture); // RGB, or RGBA with alpha
std::string ppm_file(const stillimage_picture& picture); // RGB; alpha is left out

// YUV4MPEG2 with one frame, limited range: mono, 4:2:0, 4:2:2, 4:4:4 or 4:4:4 with alpha; other
// subsamplings, and 4:2:0 or 4:2:2 with alpha, become 4:4:4 by repeated chroma.
std::string y4m_file(const stillimage_picture& picture);
