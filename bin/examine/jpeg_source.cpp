#include "bin/examine/jpeg_source.h"

#include <cstddef>

#include <jerror.h>

#include "bin/examine/jpeg_reader.h"
#include "bin/examine/picture_input.h"
#include "bin/examine/reading_watch.h"

namespace {

jpeg_source_mgr source;
picture_input input;
bool at_start = false; // no byte of the file has been read
JOCTET buffer[32768];

void start_source(j_decompress_ptr /*cinfo*/)
{
    at_start = true;
}

boolean fill_buffer(j_decompress_ptr cinfo)
{
    if (must_stop_reading()) {
        leave_jpeg_library();
    }
    size_t count = read_picture(&input, buffer, sizeof buffer);
    if (count == 0) {
        if (at_start) {
            ERREXIT(cinfo, JERR_INPUT_EMPTY);
        }
        WARNMS(cinfo, JWRN_JPEG_EOF);
        buffer[count++] = 0xFF;
        buffer[count++] = JPEG_EOI;
    }
    source.next_input_byte = buffer;
    source.bytes_in_buffer = count;
    at_start = false;
    return TRUE;
}

void skip_bytes(j_decompress_ptr cinfo, long count)
{
    if (count <= 0) {
        return;
    }
    auto left = static_cast<size_t>(count);
    while (left > source.bytes_in_buffer) {
        left -= source.bytes_in_buffer;
        fill_buffer(cinfo);
    }
    source.next_input_byte += left;
    source.bytes_in_buffer -= left;
}

void end_source(j_decompress_ptr /*cinfo*/) {}

} // namespace

void open_jpeg_source(j_decompress_ptr cinfo, int fd)
{
    watch_examination();
    input = open_picture_input(fd);
    source = {};
    source.init_source = start_source;
    source.fill_input_buffer = fill_buffer;
    source.skip_input_data = skip_bytes;
    source.resync_to_restart = jpeg_resync_to_restart;
    source.term_source = end_source;
    cinfo->src = &source;
}
