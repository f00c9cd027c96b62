// The first call requests zero bytes of the strip. The library then reads the strip's data and sets
// up the codec, as for the whole strip and with the same messages. The rows follow. When anything
// about them is unusual, even a warning, the whole strip is decoded again in one call, and only
// that result counts: the library's messages name the position in the strip, and some codecs resume
// at the end of the row after an error.
#include "bin/decode/tiff_large_strip.h"

#include <cstring>

#include "bin/decode/pace.h"
#include "bin/examine/tiff.h"
#include "bin/examine/tiff_messages.h"
#include "platform/run_state.h"

namespace {

// Codecs that decode row by row exactly as in one call. Not in the list: codecs that always decode
// a whole strip (JBIG, LERC, WebP); Deflate, which the library decodes faster in whole strips; and
// LZMA, which is so slow that decoding a damaged strip a second time would take seconds. (A ZSTD
// strip of several frames, which no encoder writes, ends after the first frame when it is decoded
// in one call.)
struct row_codec {
    uint16_t compression;
    bool may_keep_rows; // false: rows after a strip's early end would differ
    bool counts_rows;   // also when it decodes in one call
    uint64_t piece;     // bytes that take some milliseconds
};

constexpr uint64_t bytes_of_samples = uint64_t{1} << 20;
constexpr uint64_t bytes_of_bits = uint64_t{1} << 16;

constexpr row_codec row_codecs[] = {
    {COMPRESSION_LZW, true, false, bytes_of_samples},
    {COMPRESSION_PACKBITS, true, false, bytes_of_samples},
    {COMPRESSION_JPEG, true, true, bytes_of_samples},
    {COMPRESSION_ZSTD, true, false, bytes_of_samples},
    {COMPRESSION_PIXARLOG, true, false, bytes_of_samples},
    {COMPRESSION_CCITTRLE, false, false, bytes_of_bits},
    {COMPRESSION_CCITTRLEW, false, false, bytes_of_bits},
    {COMPRESSION_CCITTFAX3, false, false, bytes_of_bits},
    {COMPRESSION_CCITTFAX4, false, false, bytes_of_bits},
};

// Null for codecs that are not read row by row.
const row_codec* find_row_codec(bool keeps_rows)
{
    uint16_t compression = 0;
    TIFFGetField(tiff_image, TIFFTAG_COMPRESSION, &compression);
    for (const row_codec& codec : row_codecs) {
        if (codec.compression == compression && (codec.may_keep_rows || !keeps_rows)) {
            return &codec;
        }
    }
    return nullptr;
}

enum class outcome { DONE, ENDED_BY_SIGNAL, DOUBTFUL };

// Reads rows from the codec's current position. When the result is doubtful, `to` is zeroed again.
outcome read_rows(unsigned char* to, uint64_t rows, bool keeps_rows)
{
    work_pace pace = {find_row_codec(keeps_rows)->piece};
    for (uint64_t row = 0; row < rows; ++row) {
        unsigned char* row_to = keeps_rows ? to + row * tiff_bytes_per_row : to;
        if (TIFFReadScanline(tiff_image, row_to, TIFFCurrentRow(tiff_image)) != 1 ||
            counted_tiff_messages() != 0) {
            memset(to, 0, static_cast<size_t>(row_to - to) + tiff_bytes_per_row);
            return outcome::DOUBTFUL;
        }
        if (!keep_pace(&pace, tiff_bytes_per_row)) {
            return outcome::ENDED_BY_SIGNAL;
        }
    }
    return outcome::DONE;
}

// Moves the library to the row where a single call would leave it. When it cannot read the next
// strip, its message names that row.
void restore_position(uint32_t strip)
{
    unsigned char no_data[2] = {0x80, 0}; // not the start of an old-style LZW strip
    TIFFReadFromUserBuffer(tiff_image, strip, no_data, sizeof no_data, no_data, 0);
}

outcome try_rows(uint32_t strip, unsigned char* to, uint64_t rows, bool keeps_rows)
{
    set_tiff_message_fate(TIFF_MESSAGES_NOTED);
    const tmsize_t opened = TIFFReadEncodedStrip(tiff_image, strip, to, 0);
    set_tiff_message_fate(TIFF_MESSAGES_COUNTED);
    const outcome result = opened == 0 ? read_rows(to, rows, keeps_rows) : outcome::DOUBTFUL;
    if (result == outcome::DONE && !find_row_codec(keeps_rows)->counts_rows) {
        restore_position(strip);
    }
    return result;
}

tmsize_t read_again(uint32_t strip, unsigned char* to, uint64_t wanted)
{
    if (DIE4 != 0) {
        return -1;
    }
    set_tiff_message_fate(TIFF_MESSAGES_NOT_AGAIN);
    return TIFFReadEncodedStrip(tiff_image, strip, to, static_cast<tmsize_t>(wanted));
}

} // namespace

bool is_large_strip(uint64_t wanted, bool keeps_rows)
{
    const row_codec* codec = find_row_codec(keeps_rows);
    return codec != nullptr && wanted > 2 * codec->piece && wanted % tiff_bytes_per_row == 0 &&
           TIFFScanlineSize64(tiff_image) == tiff_bytes_per_row;
}

tmsize_t read_large_strip(uint32_t strip, unsigned char* to, uint64_t wanted, bool keeps_rows)
{
    tmsize_t result = -1;
    switch (try_rows(strip, to, wanted / tiff_bytes_per_row, keeps_rows)) {
    case outcome::DONE:
        result = static_cast<tmsize_t>(wanted);
        break;
    case outcome::DOUBTFUL:
        result = read_again(strip, to, wanted);
        break;
    case outcome::ENDED_BY_SIGNAL:
        break;
    }
    set_tiff_message_fate(TIFF_MESSAGES_PRINTED);
    return result;
}
