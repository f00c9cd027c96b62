#include "bin/examine/png_input.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <unistd.h>

#include "bin/examine/picture_input.h"
#include "bin/examine/reading_watch.h"

namespace {

// The chunks that the library needs from between the header and the image data. It also gets every
// other critical chunk, and refuses the file if it does not know it.
constexpr const char* wanted_chunks[] = {"PLTE"};

constexpr unsigned char signature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
constexpr size_t name_bytes = 4;
constexpr size_t head_bytes = 8; // a chunk's length and name
constexpr size_t checksum_bytes = 4;
constexpr uint64_t header_bytes = 13;
constexpr uint64_t to_the_end = UINT64_MAX;

enum class part { SIGNATURE, HEADER, CHUNKS };

struct png_source {
    picture_input file;
    part expected; // the part that begins when `left` is 0
    uint64_t left; // bytes of the current part
    size_t at;     // next byte in the buffer
    size_t held;   // bytes in the buffer
    bool was_stopped;
    bool has_size; // width and height are valid; 0 when the header is missing
    png_uint_32 width;
    png_uint_32 height;
};

png_source source = {};
unsigned char buffer[32768];

uint32_t big_endian_32(const unsigned char* bytes)
{
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

// Fills the buffer to at least `size` bytes. False when the file has fewer, or reading must stop.
bool fill_to(size_t size)
{
    if (source.held - source.at >= size) {
        return true;
    }
    source.was_stopped = source.was_stopped || must_stop_reading();
    if (source.was_stopped) {
        return false;
    }
    source.held -= source.at;
    memmove(buffer, buffer + source.at, source.held);
    source.at = 0;
    source.held += read_picture(&source.file, buffer + source.held, sizeof buffer - source.held);
    return source.held >= size;
}

void skip(uint64_t size)
{
    const uint64_t held = source.held - source.at;
    source.at += std::min(size, held);
    if (size > held && lseek(source.file.fd, static_cast<off_t>(size - held), SEEK_CUR) < 0) {
        source.file.ends_at = 0;
    }
}

bool is_named(const unsigned char* name, const char* wanted)
{
    return memcmp(name, wanted, name_bytes) == 0;
}

bool is_letter(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The name of an ancillary chunk begins with a small letter. Invalid chunks go to the library,
// which refuses them.
bool is_wanted(const unsigned char* name, uint32_t length)
{
    const bool is_valid = std::all_of(name, name + name_bytes, is_letter) && length <= INT32_MAX;
    const bool is_ancillary = name[0] >= 'a';
    return !is_valid || !is_ancillary ||
           std::any_of(std::begin(wanted_chunks), std::end(wanted_chunks),
                       [name](const char* wanted) { return is_named(name, wanted); });
}

void take_size(uint32_t length)
{
    source.has_size = length == header_bytes && fill_to(head_bytes + 8);
    if (source.has_size) {
        source.width = big_endian_32(buffer + source.at + head_bytes);
        source.height = big_endian_32(buffer + source.at + head_bytes + 4);
    }
}

// The chunks up to and including the header. The library gets, and checks, all of them.
void begin_header(const unsigned char* name, uint32_t length)
{
    if (is_named(name, "IHDR")) {
        source.expected = part::CHUNKS;
        take_size(length);
    } else {
        source.has_size = true;
    }
}

// Skips unwanted chunks. The next chunk is passed on whole, with its head and checksum.
void begin_chunk()
{
    while (fill_to(head_bytes)) {
        const uint32_t length = big_endian_32(buffer + source.at);
        const unsigned char* const name = buffer + source.at + head_bytes - name_bytes;
        source.left = head_bytes + uint64_t{length} + checksum_bytes;
        if (source.expected == part::HEADER) {
            begin_header(name, length);
            return;
        }
        if (is_named(name, "IDAT")) {
            break;
        }
        if (is_wanted(name, length)) {
            return;
        }
        skip(source.left);
    }
    source.left = to_the_end;
}

void begin_part()
{
    if (source.expected == part::SIGNATURE) {
        source.expected = part::HEADER;
        source.left = sizeof signature;
    } else {
        begin_chunk();
    }
}

// The library functions called here may jump, so no frame holds an object with a destructor.
void read_png(png_structp context, png_bytep to, size_t size)
{
    size_t done = 0;
    while (done < size) {
        if (source.left == 0) {
            begin_part();
        }
        fill_to(1);
        const size_t ready = std::min<uint64_t>(source.held - source.at, source.left);
        const size_t count = std::min(ready, size - done);
        if (source.was_stopped) {
            png_longjmp(context, 1);
        }
        if (count == 0) {
            png_error(context, "Read Error");
        }
        memcpy(to + done, buffer + source.at, count);
        source.at += count;
        source.left -= count;
        done += count;
    }
}

} // namespace

void open_png_input(png_structp context, int fd)
{
    source = {};
    source.file = open_picture_input(fd);
    watch_examination();
    png_set_read_fn(context, nullptr, read_png);
}

bool png_input_was_stopped()
{
    return source.was_stopped;
}

bool png_size_in_file(png_uint_32* width, png_uint_32* height)
{
    *width = source.width;
    *height = source.height;
    return source.has_size;
}
