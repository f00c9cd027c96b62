// PNG files. libpng reports errors by longjmp, so no frame between encode() and libpng has an
// object with a destructor. The caller of encode() destroys the encoder and owns the sink.
#include <cerrno>
#include <csetjmp>
#include <cstdlib>
#include <type_traits>
#include <vector>

#include <png.h>

#include "client/boundary.h"
#include "client/convert/byte_sink.h"
#include "client/convert/picture_check.h"
#include "client/convert/rgb_rows.h"
#include "client/products.h"

namespace {

// The rows to be written: those of a picture, converted into `scratch`, or packed pixels.
struct row_source {
    uint32_t width;
    uint32_t height;
    uint32_t channels;
    rgb_rows* picture; // null: packed pixels
    uint8_t* scratch;
    const uint8_t* pixels;
    size_t stride;
};

struct png_work {
    png_structp png;
    png_infop info;
    byte_sink sink;
};

static_assert(std::is_trivially_destructible_v<row_source> &&
              std::is_trivially_destructible_v<png_work>);

extern "C" {

void ignore_warning(png_structp /*png*/, png_const_charp /*message*/) {}

void jump_back(png_structp png, png_const_charp /*message*/)
{
    png_longjmp(png, 1);
}

void write_bytes(png_structp png, png_bytep bytes, size_t size)
{
    if (!put_bytes(*static_cast<byte_sink*>(png_get_io_ptr(png)), bytes, size)) {
        png_error(png, "");
    }
}

void flush_nothing(png_structp /*png*/) {}
}

const uint8_t* row_of(const row_source& rows, uint32_t y)
{
    if (rows.picture == nullptr) {
        return rows.pixels + y * rows.stride;
    }
    rows.picture->put(y, rows.channels, rows.scratch);
    return rows.scratch;
}

void write_file(png_work& work, const row_source& rows)
{
    constexpr int fast_compression = 3;
    png_set_write_fn(work.png, &work.sink, write_bytes, flush_nothing);
    png_set_user_limits(work.png, max_extent, max_extent);
    png_set_compression_level(work.png, fast_compression);
    png_set_filter(work.png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
    png_set_IHDR(work.png, work.info, rows.width, rows.height, 8,
                 rows.channels == 4 ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_sRGB(work.png, work.info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(work.png, work.info);
    for (uint32_t y = 0; y < rows.height; ++y) {
        png_write_row(work.png, row_of(rows, y));
    }
    png_write_end(work.png, work.info);
}

// False after an error of libpng or of the sink.
bool encode(png_work& work, const row_source& rows)
{
    if (setjmp(png_jmpbuf(work.png)) != 0) {
        return false;
    }
    write_file(work, rows);
    return true;
}

// STILLIMAGE_OK, or STILLIMAGE_ERROR_SYSTEM with errno set. The caller owns the sink's memory.
stillimage_result make_png(const row_source& rows, byte_sink* sink)
{
    png_work work = {};
    work.sink = *sink;
    work.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, jump_back, ignore_warning);
    work.info = work.png == nullptr ? nullptr : png_create_info_struct(work.png);
    const bool done = work.info != nullptr && encode(work, rows);
    png_destroy_write_struct(&work.png, &work.info);
    *sink = work.sink;
    if (!done) {
        errno = work.sink.error != 0 ? work.sink.error : ENOMEM;
    }
    return done ? STILLIMAGE_OK : STILLIMAGE_ERROR_SYSTEM;
}

stillimage_result picture_to_png(const stillimage_picture& picture, byte_sink* sink)
{
    const uint32_t channels = picture.plane[STILLIMAGE_A] != nullptr ? 4 : 3;
    rgb_rows rows(picture);
    std::vector<uint8_t> scratch(product_of(picture.width, channels));
    return make_png({picture.width, picture.height, channels, &rows, scratch.data(), nullptr, 0},
                    sink);
}

stillimage_result hand_over(stillimage_result result, const byte_sink& sink, uint8_t** file,
                            size_t* size)
{
    if (result != STILLIMAGE_OK) {
        free(sink.bytes);
        return result;
    }
    *file = sink.bytes;
    *size = sink.size;
    return STILLIMAGE_OK;
}

bool clear_results(uint8_t** file, size_t* size)
{
    if (file == nullptr || size == nullptr) {
        return false;
    }
    *file = nullptr;
    *size = 0;
    return true;
}

} // namespace

stillimage_result stillimage_picture_to_png(const stillimage_picture* picture, uint8_t** file,
                                            size_t* size)
{
    return at_boundary([&] {
        if (!clear_results(file, size) || !can_convert(picture)) {
            return STILLIMAGE_ERROR_ARGUMENT;
        }
        byte_sink sink;
        const stillimage_result result = picture_to_png(*picture, &sink);
        return hand_over(result, sink, file, size);
    });
}

stillimage_result stillimage_picture_write_png(const stillimage_picture* picture, int fd)
{
    return at_boundary([&] {
        if (fd < 0 || !can_convert(picture)) {
            return STILLIMAGE_ERROR_ARGUMENT;
        }
        byte_sink sink;
        sink.fd = fd;
        return picture_to_png(*picture, &sink);
    });
}

stillimage_result stillimage_pixels_to_png(uint32_t format, uint32_t width, uint32_t height,
                                           const uint8_t* pixels, size_t stride, uint8_t** file,
                                           size_t* size)
{
    return at_boundary([&] {
        const uint32_t channels = channels_of(format);
        if (!clear_results(file, size) || channels == 0 || pixels == nullptr ||
            !is_extent(width, height) || !holds_pixels(stride, channels, width, height)) {
            return STILLIMAGE_ERROR_ARGUMENT;
        }
        byte_sink sink;
        const stillimage_result result =
            make_png({width, height, channels, nullptr, nullptr, pixels, stride}, &sink);
        return hand_over(result, sink, file, size);
    });
}
