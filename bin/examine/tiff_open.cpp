#include "bin/examine/tiff_open.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "bin/examine/image_state.h"
#include "bin/examine/picture_input.h"
#include "bin/examine/reading_watch.h"
#include "bin/examine/tiff_messages.h"

namespace {

// --- the file as the library reads it -----------------------------------------------------------

// The values of a directory's tags may overlap in the file, and the library copies them for each
// tag: one megabyte that thousands of tags point to would become gigabytes. So the bytes read while
// a file is opened are limited. An honest file is read once at most, one with old-style JPEG twice.
struct tiff_file {
    picture_input input;
    bool is_opening;
    uint64_t allowance; // bytes that may still be read while the file is opened
    bool is_over_allowance;
    uint64_t since_poll; // bytes read since clients were served and DIE4 was polled
    bool is_stopped;     // by a signal
};

constexpr uint64_t max_read = uint64_t{4} << 20; // bytes; takes some milliseconds

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
    file->is_over_allowance = file->is_over_allowance || bytes > file->allowance;
    file->allowance -= file->is_over_allowance ? 0 : bytes;
    return !file->is_over_allowance;
}

// Serves clients. False when a signal asked the process to end; the library's messages about that
// are dropped. Small reads of an open file continue, so that a strip already begun is drawn.
bool may_read(tiff_file* file)
{
    if (!file->is_opening && file->since_poll < max_read) {
        return true;
    }
    file->since_poll = 0;
    if (!must_stop_reading()) {
        return true;
    }
    file->is_stopped = true;
    set_tiff_message_fate(TIFF_MESSAGES_DROPPED);
    return false;
}

// While the file is opened, it ends where reading was stopped. Later every read appears to be
// complete: the library would clear the missing part of a strip, which takes longer than reading
// it.
uint64_t bytes_after_stop(const tiff_file& file, unsigned char* to, uint64_t done, uint64_t wanted)
{
    constexpr uint64_t any_header = 4096;
    if (file.is_opening) {
        return done;
    }
    memset(to + done, 0, std::min(wanted - done, any_header));
    return wanted;
}

tmsize_t read_file(thandle_t handle, void* to, tmsize_t size)
{
    tiff_file* file = file_of(handle);
    const auto wanted = static_cast<uint64_t>(size);
    auto* bytes = static_cast<unsigned char*>(to);
    uint64_t done = 0;
    while (done < wanted) {
        if (!may_read(file)) {
            done = bytes_after_stop(*file, bytes, done, wanted);
            break;
        }
        const uint64_t some = std::min(wanted - done, max_read);
        const uint64_t got = read_picture(&file->input, bytes + done, some);
        done += got;
        file->since_poll += got;
        if (got < some) {
            break;
        }
    }
    return is_allowed(file, done) ? static_cast<tmsize_t>(done) : 0;
}

tmsize_t write_nothing(thandle_t, void*, tmsize_t)
{
    return -1;
}

toff_t seek_in_file(thandle_t handle, toff_t offset, int whence)
{
    return static_cast<toff_t>(
        lseek(file_of(handle)->input.fd, static_cast<off_t>(offset), whence));
}

toff_t file_size(thandle_t handle)
{
    return size_of(file_of(handle)->input.fd);
}

int close_file(thandle_t handle)
{
    const int result = close(file_of(handle)->input.fd);
    delete file_of(handle);
    return result;
}

// --- opening ------------------------------------------------------------------------------------

constexpr const char* open_mode = "rm"; // "m": not mapped

#if TIFFLIB_VERSION >= 20221213

// Limit on a single allocation of the library, in bytes: a strip of the largest picture.
constexpr tmsize_t max_allocation = tmsize_t{image_size_limit} * image_size_limit * 8;

TIFF* open_limited(tiff_file* file, const char* name)
{
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (options == nullptr) {
        return nullptr;
    }
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, max_allocation);
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

// Like open_limited, but returns null for a directory whose values exceed the allowance.
TIFF* open_within_allowance(tiff_file* file, const char* name)
{
    TIFF* image = open_limited(file, name);
    file->is_opening = false;
    if (!file->is_over_allowance) {
        return image;
    }
    TIFFErrorExt(nullptr, name, "%s", "Its tags want more bytes than the file holds");
    if (image != nullptr) {
        TIFFCleanup(image); // does not close `file`
    }
    return nullptr;
}

} // namespace

TIFF* open_tiff(int fd, const char* name)
{
    install_tiff_messages();
    watch_examination();
    auto* file = new (std::nothrow)
        tiff_file{open_picture_input(fd), true, opening_allowance(fd), false, 0, false};
    TIFF* image = file != nullptr ? open_within_allowance(file, name) : nullptr;
    if (image == nullptr) {
        delete file;
        close(fd); // the library closes it only after success
    }
    return image;
}

bool tiff_reading_was_stopped(TIFF* image)
{
    return file_of(TIFFClientdata(image))->is_stopped;
}
