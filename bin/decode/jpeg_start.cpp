#include "bin/decode/jpeg_start.h"

#include <csetjmp>
#include <cstdio>
#include <sys/stat.h>

#include <jpeglib.h>

#include "bin/examine/jpeg_reader.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"

namespace {

jpeg_progress_mgr progress; // the library keeps a pointer to it while it starts
uint64_t work_left = 0;     // for the scans that follow

uint64_t work_allowed()
{
    struct stat info = {};
    const bool is_known = fstat(fileno(jpeg_fp), &info) == 0 && info.st_size > 0;
    const uint64_t file_size = is_known ? static_cast<uint64_t>(info.st_size) : 0;
    return max_scan_work + file_size * scan_work_per_byte;
}

// The library finds the marker that ends a scan's data while it decodes the last rows, or long
// before when the data is short.
uint64_t work_of_coefficient()
{
    const jpeg_decompress_struct& cinfo = *jpeg_decompress;
    if (cinfo.arith_code == 0) {
        return 1;
    }
    if (cinfo.unread_marker == 0) {
        return arithmetic_weight;
    }
    const bool is_refinement = cinfo.progressive_mode != 0 && cinfo.Ah != 0;
    return is_refinement ? arithmetic_refinement_without_data : arithmetic_weight_without_data;
}

uint64_t work_of_block()
{
    constexpr uint64_t whole_block = DCTSIZE2;
    const jpeg_decompress_struct& cinfo = *jpeg_decompress;
    const bool is_part = cinfo.progressive_mode != 0 && cinfo.Ss >= 0 && cinfo.Ss <= cinfo.Se;
    const int part = cinfo.Se - cinfo.Ss + 1;
    const uint64_t coefficients = is_part ? static_cast<uint64_t>(part) : whole_block;
    return work_per_visit + coefficients * work_of_coefficient();
}

// One step of the current scan: a row of its interleaved units, or, when the scan has a single
// component, that component's block rows in such a row.
uint64_t work_of_step()
{
    const jpeg_decompress_struct& cinfo = *jpeg_decompress;
    if (cinfo.input_scan_number == 0) {
        return 0; // before the first scan
    }
    const int rows = cinfo.comps_in_scan == 1 ? cinfo.cur_comp_info[0]->v_samp_factor : 1;
    return uint64_t{cinfo.MCUs_per_row} * static_cast<uint64_t>(cinfo.blocks_in_MCU * rows) *
           work_of_block();
}

// Called by the library for each row of blocks of each scan. Serving clients from inside the
// library is safe because nothing that they can request calls it. The limits are needed because an
// empty scan takes ten bytes of file and a walk over all coefficients, and with arithmetic coding a
// full scan takes hardly more.
void watch_start(j_common_ptr /*cinfo*/)
{
    quickidle_comm();
    const uint64_t work = work_of_step();
    if (DIE4 != 0 || jpeg_decompress->input_scan_number > max_jpeg_scans || work > work_left) {
        jump_to_jpeg_call_site();
    }
    work_left -= work;
}

void start_watched()
{
    progress = {};
    work_left = work_allowed();
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
