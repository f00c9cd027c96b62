// Pictures as YUV4MPEG2, in strings.
#pragma once

#include <string>

#include "client/stillimage_client.h"
#include "client/tool/rate.h"

stillimage_y4m_stream y4m_stream_of(const stillimage_picture& picture);

// The stream's first line, with the aspect ratio of this picture.
std::string y4m_header(const stillimage_picture& picture, const stillimage_y4m_stream& stream,
                       const rate& frames_a_second);

// Appends one frame with its "FRAME" line to `bytes`. The picture has to fit the stream.
void add_y4m_frame(const stillimage_picture& picture, const stillimage_y4m_stream& stream,
                   std::string* bytes);

// A file of one frame.
std::string y4m_file(const stillimage_picture& picture);
