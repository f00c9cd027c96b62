// The linker's --wrap redirects each call of NAME to __wrap_NAME; __real_NAME is the original.
#include "tests/support/failing_calls.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <unistd.h>

#include <png.h>
#include <tiffio.h>
#include <webp/decode.h>

namespace failing_calls {

script plan;

} // namespace failing_calls

using failing_calls::plan;

namespace {

bool counts_out(int& countdown)
{
    return countdown > 0 && --countdown == 0;
}

int scripted_tiff_tag(TIFF* image, uint32_t tag, va_list arguments)
{
    if (plan.tiff_tag == tag) {
        if (plan.tiff_value != 0) {
            *va_arg(arguments, uint16_t*) = plan.tiff_value;
        }
        return 0;
    }
    if (tag == TIFFTAG_SAMPLESPERPIXEL && plan.tiff_samples >= 0) {
        *va_arg(arguments, uint16_t*) = static_cast<uint16_t>(plan.tiff_samples);
        return 1;
    }
    if (tag == TIFFTAG_YCBCRSUBSAMPLING && plan.tiff_factors.first != 0) {
        *va_arg(arguments, uint16_t*) = plan.tiff_factors.first;
        *va_arg(arguments, uint16_t*) = plan.tiff_factors.second;
        return 1;
    }
    if (tag == TIFFTAG_COLORMAP && plan.tiff_null_colour >= 0) {
        static uint16_t colours[256] = {};
        for (int i = 0; i < 3; ++i) {
            *va_arg(arguments, uint16_t**) = i == plan.tiff_null_colour ? nullptr : colours;
        }
        return 1;
    }
    return TIFFVGetField(image, tag, arguments);
}

} // namespace

extern "C" {

FILE* __real_fdopen(int fd, const char* mode);
FILE* __wrap_fdopen(int fd, const char* mode);
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
ssize_t __real_read(int fd, void* buffer, size_t size);
ssize_t __wrap_read(int fd, void* buffer, size_t size);
off_t __real_lseek(int fd, off_t offset, int whence);
off_t __wrap_lseek(int fd, off_t offset, int whence);
void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
png_structp __real_png_create_read_struct(png_const_charp version, png_voidp error_pointer,
                                          png_error_ptr error, png_error_ptr warning);
png_structp __wrap_png_create_read_struct(png_const_charp version, png_voidp error_pointer,
                                          png_error_ptr error, png_error_ptr warning);
png_infop __real_png_create_info_struct(png_const_structrp context);
png_infop __wrap_png_create_info_struct(png_const_structrp context);
png_uint_32 __real_png_get_IHDR(png_const_structrp context, png_const_inforp info,
                                png_uint_32* width, png_uint_32* height, int* depth, int* colour,
                                int* interlace, int* compression, int* filter);
png_uint_32 __wrap_png_get_IHDR(png_const_structrp context, png_const_inforp info,
                                png_uint_32* width, png_uint_32* height, int* depth, int* colour,
                                int* interlace, int* compression, int* filter);
void __real_png_destroy_read_struct(png_structpp context, png_infopp info, png_infopp end);
void __wrap_png_destroy_read_struct(png_structpp context, png_infopp info, png_infopp end);
int __wrap_TIFFGetField(TIFF* image, uint32_t tag, ...);
#if TIFFLIB_VERSION >= 20221213
void __real_TIFFOpenOptionsSetMaxSingleMemAlloc(TIFFOpenOptions* options, tmsize_t limit);
void __wrap_TIFFOpenOptionsSetMaxSingleMemAlloc(TIFFOpenOptions* options, tmsize_t limit);
#endif
tmsize_t __real_TIFFReadEncodedStrip(TIFF* image, uint32_t strip, void* to, tmsize_t size);
tmsize_t __wrap_TIFFReadEncodedStrip(TIFF* image, uint32_t strip, void* to, tmsize_t size);
uint32_t __real_TIFFNumberOfStrips(TIFF* image);
uint32_t __wrap_TIFFNumberOfStrips(TIFF* image);
tmsize_t __real_TIFFScanlineSize(TIFF* image);
tmsize_t __wrap_TIFFScanlineSize(TIFF* image);
tmsize_t __real_TIFFStripSize(TIFF* image);
tmsize_t __wrap_TIFFStripSize(TIFF* image);
VP8StatusCode __real_WebPGetFeaturesInternal(const uint8_t* data, size_t size,
                                             WebPBitstreamFeatures* features, int version);
VP8StatusCode __wrap_WebPGetFeaturesInternal(const uint8_t* data, size_t size,
                                             WebPBitstreamFeatures* features, int version);
int __real_WebPInitDecoderConfigInternal(WebPDecoderConfig* config, int version);
int __wrap_WebPInitDecoderConfigInternal(WebPDecoderConfig* config, int version);

FILE* __wrap_fdopen(int fd, const char* mode)
{
    return counts_out(plan.fdopen) ? nullptr : __real_fdopen(fd, mode);
}

void* __wrap_calloc(size_t count, size_t size)
{
    if (counts_out(plan.calloc) || (size != 0 && count > plan.max_calloc / size)) {
        return nullptr;
    }
    return __real_calloc(count, size);
}

ssize_t __wrap_read(int fd, void* buffer, size_t size)
{
    if (plan.on_read) {
        plan.on_read();
    }
    if (counts_out(plan.read)) {
        errno = plan.read_errno;
        return -1;
    }
    if (counts_out(plan.read_ends)) {
        return 0;
    }
    const auto max_size = static_cast<size_t>(plan.max_read);
    return __real_read(fd, buffer, max_size != 0 && max_size < size ? max_size : size);
}

off_t __wrap_lseek(int fd, off_t offset, int whence)
{
    return counts_out(plan.lseek) ? -1 : __real_lseek(fd, offset, whence);
}

void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag)
{
    return counts_out(plan.new_object) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag)
{
    return counts_out(plan.new_array) ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}

png_structp __wrap_png_create_read_struct(png_const_charp version, png_voidp error_pointer,
                                          png_error_ptr error, png_error_ptr warning)
{
    if (counts_out(plan.png_create_read_struct)) {
        return nullptr;
    }
    return __real_png_create_read_struct(version, error_pointer, error, warning);
}

png_infop __wrap_png_create_info_struct(png_const_structrp context)
{
    return counts_out(plan.png_create_info_struct) ? nullptr
                                                   : __real_png_create_info_struct(context);
}

png_uint_32 __wrap_png_get_IHDR(png_const_structrp context, png_const_inforp info,
                                png_uint_32* width, png_uint_32* height, int* depth, int* colour,
                                int* interlace, int* compression, int* filter)
{
    if (counts_out(plan.png_get_ihdr)) {
        return 0;
    }
    return __real_png_get_IHDR(context, info, width, height, depth, colour, interlace, compression,
                               filter);
}

void __wrap_png_destroy_read_struct(png_structpp context, png_infopp info, png_infopp end)
{
    if (counts_out(plan.png_destroy_read_struct)) {
        png_error(*context, "not now");
    }
    __real_png_destroy_read_struct(context, info, end);
}

int __wrap_TIFFGetField(TIFF* image, uint32_t tag, ...)
{
    va_list arguments;
    va_start(arguments, tag);
    const int result = scripted_tiff_tag(image, tag, arguments);
    va_end(arguments);
    return result;
}

#if TIFFLIB_VERSION >= 20221213

void __wrap_TIFFOpenOptionsSetMaxSingleMemAlloc(TIFFOpenOptions* options, tmsize_t limit)
{
    plan.seen_tiff_limit = limit;
    __real_TIFFOpenOptionsSetMaxSingleMemAlloc(options, limit);
}

#endif

tmsize_t __wrap_TIFFReadEncodedStrip(TIFF* image, uint32_t strip, void* to, tmsize_t size)
{
    return plan.tiff_read_strip ? plan.tiff_read_strip(strip, static_cast<unsigned char*>(to), size)
                                : __real_TIFFReadEncodedStrip(image, strip, to, size);
}

uint32_t __wrap_TIFFNumberOfStrips(TIFF* image)
{
    return plan.tiff_no_strips ? 0 : __real_TIFFNumberOfStrips(image);
}

tmsize_t __wrap_TIFFScanlineSize(TIFF* image)
{
    return plan.tiff_no_scanline ? 0 : __real_TIFFScanlineSize(image);
}

tmsize_t __wrap_TIFFStripSize(TIFF* image)
{
    return plan.tiff_no_strip_size ? 0 : __real_TIFFStripSize(image);
}

VP8StatusCode __wrap_WebPGetFeaturesInternal(const uint8_t* data, size_t size,
                                             WebPBitstreamFeatures* features, int version)
{
    const VP8StatusCode status = __real_WebPGetFeaturesInternal(data, size, features, version);
    if (counts_out(plan.webp_width)) {
        features->width = 0;
    }
    if (counts_out(plan.webp_height)) {
        features->height = 0;
    }
    return status;
}

int __wrap_WebPInitDecoderConfigInternal(WebPDecoderConfig* config, int version)
{
    return counts_out(plan.webp_init) ? 0 : __real_WebPInitDecoderConfigInternal(config, version);
}

} // extern "C"

int64_t failing_calls::read_tiff_strip(tiff* image, uint32_t strip, unsigned char* to, int64_t size)
{
    return __real_TIFFReadEncodedStrip(image, strip, to, size);
}
