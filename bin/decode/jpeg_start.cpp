#include "bin/decode/jpeg_start.h"

#include <csetjmp>
#include <cstdio>

#include <jpeglib.h>

#include "bin/examine/jpeg_reader.h"
#include "bin/quickidle.h"
#include "platform/media_item.h"

namespace {

jpeg_progress_mgr progress; // the library keeps a pointer to it while it starts

// Called by the library for each row of blocks of each scan. Serving clients from inside the
// library is safe as long as nothing they can ask for calls it. An empty scan costs ten bytes of
// file and a walk over all coefficients, hence the ceiling.
void watch_start(j_common_ptr /*cinfo*/)
{
    quickidle_comm();
    if (DIE4 != 0 || jpeg_decompress->input_scan_number > most_jpeg_scans) {
        jump_to_jpeg_call_site();
    }
}

void start_watched()
{
    progress = {};
    progress.progress_monitor = watch_start;
    jpeg_decompress->progress = &progress;
    jpeg_start_decompress(jpeg_decompress);
    jpeg_decompress->progress = nullptr;
}

} // namespace

int start_jpeg_decompress()
{
    if (setjmp(jpeg_error_jumpto) == 0) {
        jpeg_error_armed = true;
        start_watched();
        setjmp_abort_unexpected();
        return 0;
    }
    jpeg_decompress->progress = nullptr;
    fputs("jpeg_start_decompress() threw an error. giving up\n", stderr);
    setjmp_abort_unexpected();
    jpeg_abort_decompress(jpeg_decompress);
    return -1;
}
