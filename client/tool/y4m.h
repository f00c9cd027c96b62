// Served pictures as YUV4MPEG2, in strings.
#pragma once

#include <string>

#include "client/stillimage_client.h"
#include "client/tool/rate.h"

using y4m_shape = stillimage_y4m_stream;

y4m_shape y4m_shape_of(const stillimage_picture& picture);

// Whether the picture can be a frame of such a stream. In one with alpha a picture without is opaque.
bool y4m_fits(const stillimage_picture& picture, const y4m_shape& shape);

// The stream's first line, with the aspect ratio of this picture.
std::string y4m_header(const stillimage_picture& picture, const y4m_shape& shape,
                       const rate& frames_a_second);

// Appends one frame, its "FRAME" line first. The picture fits.
void add_y4m_frame(const stillimage_picture& picture, const y4m_shape& shape, std::string* stream);

// A file of one frame.
std::string y4m_file(const stillimage_picture& picture);
