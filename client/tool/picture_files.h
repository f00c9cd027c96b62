// A served picture as a file that other programs open.
#pragma once

#include <string>

#include "client/stillimage_client.h"
#include "client/tool/rgb.h"

// The whole file, or empty when there is no memory for it.
std::string png_file(const stillimage_picture& picture); // RGB, or RGBA with alpha
std::string png_file(const rgb_picture& rgb);
std::string ppm_file(const stillimage_picture& picture); // RGB; alpha is left out
