#include "bin/examine/jpeg_reader.h"

#include <cstddef>
#include <cstdlib>

#include <jerror.h>

#include "bin/examine/picture_input.h"
#include "bin/examine/reading_watch.h"

FILE* jpeg_fp = nullptr;
jpeg_decompress_struct* jpeg_decompress = nullptr;
jpeg_error_mgr* jpeg_error_manager = nullptr;
uint8_t jpeg_should_abort = 0;
jmp_buf jpeg_error_jumpto;
bool jpeg_error_armed = false;
jmp_buf jpeg_stop_jumpto;
bool jpeg_stop_armed = false;

// Jumping into a function that has returned is undefined, so the trap is this flag and not a jump
// buffer that stays behind.
void setjmp_abort_unexpected()
{
    jpeg_error_armed = false;
}

void jump_to_jpeg_call_site()
{
    if (!jpeg_error_armed) {
        fputs("Unexpected longjmp from JPEGLIB error handler\n", stderr);
        abort();
    }
    jpeg_error_armed = false;
    longjmp(jpeg_error_jumpto, 1);
}

void leave_jpeg_library()
{
    if (jpeg_error_armed) {
        jump_to_jpeg_call_site();
    }
    if (jpeg_stop_armed) {
        jpeg_stop_armed = false;
        longjmp(jpeg_stop_jumpto, 1);
    }
}

void jpeg_error_exit_cbj(j_common_ptr cinfo)
{
    if (jpeg_error_manager == nullptr) {
        fputs("Whoah.... jpeg_error_exit callback with no error manager!\n", stderr);
        abort();
    }
    if (cinfo != reinterpret_cast<j_common_ptr>(jpeg_decompress)) {
        fputs("jpeg_error_exit for a decompression object that's not mine\n", stderr);
        abort();
    }
    char message[JMSG_LENGTH_MAX] = "";
    jpeg_error_manager->format_message(cinfo, message);
    fprintf(stderr, "JPEGLIB error exit attempted (code %d: '%s')\n", jpeg_error_manager->msg_code,
            message);
    jump_to_jpeg_call_site();
}

namespace {

// --- the data source -----------------------------------------------------------------------------

jpeg_source_mgr source;
picture_input input;
JOCTET buffer[32768];
bool at_start = false; // no byte of the file has been read

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

// --- the end of decompression --------------------------------------------------------------------

// Each of the next two functions keeps its frame alive while the jump is armed.

bool finish_decompress()
{
    if (setjmp(jpeg_error_jumpto) != 0) {
        return false;
    }
    jpeg_error_armed = true;
    jpeg_finish_decompress(jpeg_decompress);
    setjmp_abort_unexpected();
    return true;
}

bool abort_decompress()
{
    if (setjmp(jpeg_error_jumpto) != 0) {
        return false;
    }
    jpeg_error_armed = true;
    jpeg_abort_decompress(jpeg_decompress);
    setjmp_abort_unexpected();
    return true;
}

void finish_or_abort_decompress()
{
    if (finish_decompress()) {
        return;
    }
    fputs("jpeg_finish_decompress() threw an error. calling jpeg_abort_decompress function\n",
          stderr);
    if (!abort_decompress()) {
        fputs("free_all_jpeg() JPEGLIB panicked in a way I could not handle. Bailing out\n",
              stderr);
        abort();
    }
}

void free_decompressor()
{
    // Without a memory manager the library has not created the object, and must not be called with
    // it.
    if (jpeg_decompress->mem != nullptr) {
        if (jpeg_should_abort != 0) {
            setjmp_abort_unexpected();
            jpeg_abort_decompress(jpeg_decompress);
        } else {
            finish_or_abort_decompress();
        }
        setjmp_abort_unexpected();
        jpeg_destroy_decompress(jpeg_decompress);
    }
    free(jpeg_decompress);
    jpeg_decompress = nullptr;
}

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

void free_all_jpeg_fileio()
{
    if (jpeg_decompress != nullptr) {
        free_decompressor();
    }
    free(jpeg_error_manager);
    jpeg_error_manager = nullptr;
    if (jpeg_fp != nullptr) {
        fclose(jpeg_fp);
        jpeg_fp = nullptr;
    }
    setjmp_abort_unexpected();
}

void reset_jpeg_reader()
{
    if (jpeg_decompress != nullptr) {
        jpeg_should_abort = 1;
    }
    free_all_jpeg_fileio();
    jpeg_should_abort = 0;
}
