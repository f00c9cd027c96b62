// The one JPEG stream of the process with its library objects, and the handling of fatal library
// errors.
//
// The library reports a fatal error by a callback that must not return. A call site that can
// recover from an error arms the jump, only for as long as its own frame lives:
//
//     if (setjmp(jpeg_error_jumpto) == 0) {
//         jpeg_error_armed = true;
//         ... library calls; no object with a destructor in this frame or below it ...
//         setjmp_abort_unexpected();
//     } else {
//         ... the library reported a fatal error ...
//     }
//
// Everywhere else a fatal error ends the process.
//
// While rows are read the jump for errors is not armed. A second jump, armed in the same way,
// leaves the library there when a termination signal stops reading.
#pragma once

#include <csetjmp>
#include <cstdint>
#include <cstdio>

#include <jpeglib.h>

// Written by examine_jpeg_file and free_all_jpeg_fileio; all three null while no file is open.
extern FILE* jpeg_fp;
extern jpeg_decompress_struct* jpeg_decompress;
extern jpeg_error_mgr* jpeg_error_manager;

// 1: clean-up aborts decompression instead of reading the picture to its end. Cleared before
// examination, set when the decompressor is created.
extern uint8_t jpeg_should_abort;

extern jmp_buf jpeg_error_jumpto;
extern bool jpeg_error_armed; // jpeg_error_jumpto belongs to a live frame

extern jmp_buf jpeg_stop_jumpto;
extern bool jpeg_stop_armed; // jpeg_stop_jumpto belongs to a live frame

// Jumps to the call site that is armed for errors, else to the one armed for stops. Returns when
// none is armed.
void leave_jpeg_library();

// Disarms the jump: from now on a fatal library error prints its own line and ends the process.
void setjmp_abort_unexpected();

// Jumps to the armed call site. With none armed: prints that the jump is unexpected, and aborts.
[[noreturn]] void jump_to_jpeg_call_site();

// The library's error_exit: prints the library's message, then jumps.
[[noreturn]] void jpeg_error_exit_cbj(j_common_ptr cinfo);

// Makes `cinfo` read the file behind `fd` from its current position. The descriptor remains the
// caller's; there is one file at a time. The source behaves like the library's own for stdio: the
// end of the file gives a warning and an end-of-image marker. When a termination signal stops
// reading, the library is left through leave_jpeg_library; with no jump armed reading continues.
void open_jpeg_source(j_decompress_ptr cinfo, int fd);

// Closes the stream and frees the objects, in any state. May run twice.
void free_all_jpeg_fileio();

void reset_jpeg_reader(); // closes the reader and restores the values at program start
