#include "bin/decode/tiff_strip_reader.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bin/decode/tiff_jbig.h"
#include "bin/decode/tiff_large_strip.h"
#include "bin/decode/tiff_rows.h"
#include "bin/examine/tiff.h"
#include "bin/examine/tiff_open.h"
#include "platform/run_state.h"

namespace {

constexpr uint64_t no_strip = UINT64_MAX;

// Rows of separate planes hold one sample per pixel, but the converters read several. So this many
// bytes per pixel follow the last row.
constexpr uint64_t spare_pixel_bytes = 6;
static_assert(spare_pixel_bytes >= max_tiff_pixel_bytes);

// Bytes read. The library's error, -1, becomes UINT64_MAX, which is more than was requested.
uint64_t read_some(const strip_buffer& buffer, uint32_t strip, uint64_t done, uint64_t wanted)
{
    if (!jbig_strip_fits(strip, wanted)) {
        return UINT64_MAX;
    }
    unsigned char* to = buffer.bytes + done;
    const tmsize_t n =
        is_large_strip(wanted, buffer.keeps_rows)
            ? read_large_strip(strip, to, wanted, buffer.keeps_rows)
            : TIFFReadEncodedStrip(tiff_image, strip, to, static_cast<tmsize_t>(wanted));
    return tiff_reading_was_stopped(tiff_image) ? UINT64_MAX : static_cast<uint64_t>(n);
}

// Appends what the library gives of the strip, call by call. Returns the bytes read.
uint64_t read_encoded_strip(const strip_buffer& buffer, uint64_t strip, uint64_t wanted)
{
    uint64_t got = 0;
    while (got < wanted) {
        const uint64_t left = wanted - got;
        const uint64_t n = read_some(buffer, static_cast<uint32_t>(strip), got, left);
        if (n == 0) {
            fputs("TIFFReadEncodedStrip() returned 0 prematurely\n", stderr);
            break;
        }
        if (n > left) {
            if (DIE4 == 0) { // otherwise the signal may have ended the reading
                fputs("TIFFReadEncodedStrip() returned too many bytes\n", stderr);
            }
            break;
        }
        got += n;
    }
    return got;
}

// Keeps the first `kept` bytes and clears the rest. Unused samples are not cleared: that would
// touch memory that was never written.
void clear(strip_buffer* buffer, uint64_t kept)
{
    if (buffer->keeps_rows) {
        memset(buffer->bytes + kept, 0, buffer->held - kept);
    }
    buffer->held = kept;
}

} // namespace

bool allocate_strip_buffer(strip_buffer* buffer, uint64_t rows, bool keeps_rows)
{
    buffer->size = rows * tiff_bytes_per_row + spare_pixel_bytes * tiff_width;
    buffer->bytes = static_cast<unsigned char*>(calloc(buffer->size, 1));
    buffer->keeps_rows = keeps_rows;
    buffer->strip = no_strip;
    buffer->held = 0;
    return buffer->bytes != nullptr;
}

uint64_t read_strip(strip_buffer* buffer, uint64_t strip, uint64_t wanted)
{
    // Bytes that are still in the buffer need not be read again.
    if (buffer->strip == strip && wanted <= buffer->held) {
        clear(buffer, wanted);
        return wanted;
    }
    clear(buffer, 0); // a codec may report success without having written everything
    buffer->held = wanted;
    const uint64_t got = read_encoded_strip(*buffer, strip, wanted);
    buffer->strip = got == wanted ? strip : no_strip;
    return got;
}
