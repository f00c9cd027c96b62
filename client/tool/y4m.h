// Served pictures as YUV4MPEG2: limited range, in mono, 4:2:0, 4:2:2, 4:4:4 or 4:4:4 with alpha. Any
// other subsampling, and whatever has alpha, becomes 4:4:4 by repeated chroma. Chroma of 4:2:0 lies
// between the pixels, as JPEG and WebP have it ("C420jpeg").
#pragma once

#include <cstdint>
#include <string>

#include "client/stillimage_client.h"
#include "client/tool/rate.h"

struct y4m_kind;

// What all the frames of one stream have in common.
struct y4m_shape {
    uint32_t width = 0;
    uint32_t height = 0;
    const y4m_kind* kind = nullptr; // never null in a shape made here
};

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
