#include "bin/examine/gif_input.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

#include "bin/examine/picture_input.h"
#include "bin/examine/reading_watch.h"

namespace {

struct gif_source {
    picture_input file;
    size_t at;                 // next byte in `bytes`
    size_t held;               // number of bytes in `bytes`
    unsigned char bytes[8192]; // unpacked within a few milliseconds even at the slowest
};

gif_source source = {{-1, 0}, 0, 0, {}};

// Reads the next bytes of the file. False at its end, and when reading must stop: for a single
// pixel the library may read any number of bytes.
bool refill()
{
    source.at = 0;
    source.held =
        must_stop_reading() ? 0 : read_picture(&source.file, source.bytes, sizeof source.bytes);
    return source.held != 0;
}

// The library's InputFunc. Fewer bytes than requested mean the end of the file.
int read_bytes(GifFileType* /*gif*/, GifByteType* to, int size)
{
    const auto wanted = static_cast<size_t>(size);
    size_t done = 0;
    while (done < wanted) {
        if (source.at == source.held && !refill()) {
            break;
        }
        const size_t length = std::min(wanted - done, source.held - source.at);
        memcpy(to + done, source.bytes + source.at, length);
        source.at += length;
        done += length;
    }
    return static_cast<int>(done);
}

void close_source()
{
    if (source.file.fd >= 0) {
        close(source.file.fd);
        source.file.fd = -1;
    }
}

} // namespace

GifFileType* open_gif(int fd)
{
    close_source();
    watch_examination();
    source.file = open_picture_input(fd);
    source.at = source.held = 0;
    GifFileType* gif = DGifOpen(nullptr, read_bytes, nullptr);
    if (gif == nullptr) {
        close_source();
    }
    return gif;
}

void close_gif(GifFileType* gif)
{
    if (gif != nullptr) {
        DGifCloseFile(gif, nullptr);
    }
    close_source();
}
