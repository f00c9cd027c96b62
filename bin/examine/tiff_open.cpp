#include "bin/examine/tiff_open.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <unistd.h>

#include "bin/examine/image_state.h"

namespace {

// One line for each message. The library puts the file's name in, which may hold any byte.
[[gnu::format(printf, 3, 0)]] void print_library_message(const char* kind, const char* module,
                                                         const char* format, va_list arguments)
{
    char text[1024];
    const int start = snprintf(text, sizeof text, "%s: ", module != nullptr ? module : "libtiff");
    const size_t used = start > 0 && size_t(start) < sizeof text ? size_t(start) : 0;
    vsnprintf(text + used, sizeof text - used, format, arguments);
    for (char* c = text; *c != '\0'; ++c) {
        if (static_cast<unsigned char>(*c) < ' ' || *c == '\x7F') {
            *c = '?';
        }
    }
    fprintf(stderr, "TIFF %s: %s\n", kind, text);
}

[[gnu::format(printf, 2, 0)]] void tiff_error(const char* module, const char* format,
                                              va_list arguments)
{
    print_library_message("ERROR", module, format, arguments);
}

[[gnu::format(printf, 2, 0)]] void tiff_warning(const char* module, const char* format,
                                                va_list arguments)
{
    print_library_message("WARNING", module, format, arguments);
}

constexpr const char* open_mode = "rm"; // "m": not mapped

#if TIFFLIB_VERSION >= 20221213

// Bytes of the largest single block that the library may take: a strip of the largest picture.
constexpr tmsize_t largest_allocation = tmsize_t{image_size_limit} * image_size_limit * 8;

TIFF* open_limited(int fd, const char* name)
{
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (options == nullptr) {
        return nullptr;
    }
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, largest_allocation);
    TIFF* image = TIFFFdOpenExt(fd, name, open_mode, options);
    TIFFOpenOptionsFree(options);
    return image;
}

#else

TIFF* open_limited(int fd, const char* name)
{
    return TIFFFdOpen(fd, name, open_mode);
}

#endif

} // namespace

TIFF* open_tiff(int fd, const char* name)
{
    TIFFSetErrorHandler(tiff_error);
    TIFFSetWarningHandler(tiff_warning);
    TIFF* image = open_limited(fd, name);
    if (image == nullptr) {
        close(fd); // the library keeps it only when it succeeds
    }
    return image;
}
