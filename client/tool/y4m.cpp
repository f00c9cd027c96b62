#include "client/tool/y4m.h"

y4m_shape y4m_shape_of(const stillimage_picture& picture)
{
    y4m_shape shape = {};
    stillimage_y4m_stream_of(&picture, &shape);
    return shape;
}

bool y4m_fits(const stillimage_picture& picture, const y4m_shape& shape)
{
    return stillimage_y4m_fits(&picture, &shape) != 0;
}

std::string y4m_header(const stillimage_picture& picture, const y4m_shape& shape,
                       const rate& frames_a_second)
{
    char text[256] = "";
    stillimage_y4m_header(&picture, &shape, frames_a_second.numerator, frames_a_second.denominator,
                          text, sizeof text);
    return text;
}

void add_y4m_frame(const stillimage_picture& picture, const y4m_shape& shape, std::string* stream)
{
    const size_t start = stream->size();
    const size_t size = stillimage_y4m_frame_size(&shape);
    stream->resize(start + size);
    stillimage_y4m_frame(&picture, &shape, reinterpret_cast<uint8_t*>(stream->data()) + start,
                         size);
}

std::string y4m_file(const stillimage_picture& picture)
{
    const y4m_shape shape = y4m_shape_of(picture);
    std::string file = y4m_header(picture, shape, {25, 1});
    add_y4m_frame(picture, shape, &file);
    return file;
}
