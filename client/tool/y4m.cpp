#include "client/tool/y4m.h"

stillimage_y4m_stream y4m_stream_of(const stillimage_picture& picture)
{
    stillimage_y4m_stream stream = {};
    stillimage_y4m_stream_of(&picture, &stream);
    return stream;
}

std::string y4m_header(const stillimage_picture& picture, const stillimage_y4m_stream& stream,
                       const rate& frames_a_second)
{
    char text[256] = "";
    stillimage_y4m_header(&picture, &stream, frames_a_second.numerator, frames_a_second.denominator,
                          text, sizeof text);
    return text;
}

void add_y4m_frame(const stillimage_picture& picture, const stillimage_y4m_stream& stream,
                   std::string* bytes)
{
    const size_t start = bytes->size();
    const size_t size = stillimage_y4m_frame_size(&stream);
    bytes->resize(start + size);
    stillimage_y4m_frame(&picture, &stream, reinterpret_cast<uint8_t*>(bytes->data()) + start,
                         size);
}

std::string y4m_file(const stillimage_picture& picture)
{
    const stillimage_y4m_stream stream = y4m_stream_of(picture);
    std::string file = y4m_header(picture, stream, {25, 1});
    add_y4m_frame(picture, stream, &file);
    return file;
}
