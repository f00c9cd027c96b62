#include "bin/examine/tiff_open.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "bin/examine/image_state.h"

namespace {

// --- messages ---------------------------------------------------------------------------------------

void without_control_characters(char* text)
{
    for (char* c = text; *c != '\0'; ++c) {
        if (static_cast<unsigned char>(*c) < ' ' || *c == '\x7F') {
            *c = '?';
        }
    }
}

// One line for each message. The library puts the file's name in, which may hold any byte.
[[gnu::format(printf, 3, 0)]] void print_library_message(const char* kind, const char* module,
                                                         const char* format, va_list arguments)
{
    char text[1024];
    const int start = snprintf(text, sizeof text, "%s: ", module != nullptr ? module : "libtiff");
    const size_t used = start > 0 && size_t(start) < sizeof text ? size_t(start) : 0;
    vsnprintf(text + used, sizeof text - used, format, arguments);
    without_control_characters(text);
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

// --- the file as the library reads it -------------------------------------------------------------

// The values of a directory's tags may overlap, and the library copies them for each tag: a megabyte
// that thousands of tags point to would become gigabytes. Honest files are read once at most while
// they are opened, old-style JPEG twice; tags that ask for more are not worth their memory.
struct tiff_file {
    int fd;
    bool is_opening;
    uint64_t allowance; // bytes that may be read while the file is opened
    bool asked_too_much;
};

uint64_t size_of(int fd)
{
    struct stat info = {};
    return fstat(fd, &info) == 0 && info.st_size > 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

uint64_t opening_allowance(int fd)
{
    constexpr uint64_t readings = 2;
    constexpr uint64_t small_file = 65536;
    return readings * size_of(fd) + small_file;
}

tiff_file* file_of(thandle_t handle)
{
    return static_cast<tiff_file*>(handle);
}

bool is_allowed(tiff_file* file, uint64_t bytes)
{
    if (!file->is_opening) {
        return true;
    }
    file->asked_too_much = file->asked_too_much || bytes > file->allowance;
    file->allowance -= file->asked_too_much ? 0 : bytes;
    return !file->asked_too_much;
}

tmsize_t read_file(thandle_t handle, void* to, tmsize_t size)
{
    tiff_file* file = file_of(handle);
    tmsize_t done = 0;
    while (done < size) {
        const ssize_t n =
            read(file->fd, static_cast<char*>(to) + done, static_cast<size_t>(size - done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += n;
    }
    return is_allowed(file, static_cast<uint64_t>(done)) ? done : 0;
}

tmsize_t write_nothing(thandle_t, void*, tmsize_t)
{
    return -1;
}

toff_t seek_in_file(thandle_t handle, toff_t offset, int whence)
{
    return static_cast<toff_t>(lseek(file_of(handle)->fd, static_cast<off_t>(offset), whence));
}

toff_t file_size(thandle_t handle)
{
    return size_of(file_of(handle)->fd);
}

int close_file(thandle_t handle)
{
    const int result = close(file_of(handle)->fd);
    delete file_of(handle);
    return result;
}

// --- opening ----------------------------------------------------------------------------------------

constexpr const char* open_mode = "rm"; // "m": not mapped

#if TIFFLIB_VERSION >= 20221213

// Bytes of the largest single block that the library may take: a strip of the largest picture.
constexpr tmsize_t largest_allocation = tmsize_t{image_size_limit} * image_size_limit * 8;

TIFF* open_limited(tiff_file* file, const char* name)
{
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (options == nullptr) {
        return nullptr;
    }
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, largest_allocation);
    TIFF* image = TIFFClientOpenExt(name, open_mode, file, read_file, write_nothing, seek_in_file,
                                    close_file, file_size, nullptr, nullptr, options);
    TIFFOpenOptionsFree(options);
    return image;
}

#else

TIFF* open_limited(tiff_file* file, const char* name)
{
    return TIFFClientOpen(name, open_mode, file, read_file, write_nothing, seek_in_file, close_file,
                          file_size, nullptr, nullptr);
}

#endif

// As open_limited, but null also for a directory whose values are a multiple of the file.
TIFF* open_frugal(tiff_file* file, const char* name)
{
    TIFF* image = open_limited(file, name);
    file->is_opening = false;
    if (!file->asked_too_much) {
        return image;
    }
    TIFFErrorExt(nullptr, name, "%s", "Its tags want more bytes than the file holds");
    if (image != nullptr) {
        TIFFCleanup(image); // leaves `file` alone
    }
    return nullptr;
}

} // namespace

TIFF* open_tiff(int fd, const char* name)
{
    TIFFSetErrorHandler(tiff_error);
    TIFFSetWarningHandler(tiff_warning);
    auto* file = new (std::nothrow) tiff_file{fd, true, opening_allowance(fd), false};
    TIFF* image = file != nullptr ? open_frugal(file, name) : nullptr;
    if (image == nullptr) {
        delete file;
        close(fd); // the library keeps it only when it succeeds
    }
    return image;
}
