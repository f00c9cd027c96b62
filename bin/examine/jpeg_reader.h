// The one JPEG stream of the process and its library objects, and where a fatal library error goes.
//
// The library reports a fatal error by calling back; the callback must not return. A call site that
// can go on from an error arms the jump, and only while its frame lives:
//
//     if (setjmp(jpeg_error_jumpto) == 0) {
//         jpeg_error_armed = true;
//         ... library calls; no object with a destructor in this frame or below it ...
//         setjmp_abort_unexpected();
//     } else {
//         ... the library has given up ...
//     }
//
// Everywhere else a fatal error ends the process.
//
// The rows are read where a fatal error may not jump. There a second jump, armed in the same way,
// leaves the library without an error when reading has to end.
#pragma once

#include <csetjmp>
#include <cstdint>
#include <cstdio>

#include <jpeglib.h>

// Written by examine_jpeg_file and free_all_jpeg_fileio; all three null while no file is open.
extern FILE* jpeg_fp;
extern jpeg_decompress_struct* jpeg_decompress;
extern jpeg_error_mgr* jpeg_error_manager;

// 1: clean-up drops the picture instead of reading it to its end. Cleared before examination, set
// when the decompressor is created.
extern uint8_t jpeg_should_abort;

extern jmp_buf jpeg_error_jumpto;
extern bool jpeg_error_armed; // jpeg_error_jumpto belongs to a live frame

extern jmp_buf jpeg_stop_jumpto;
extern bool jpeg_stop_armed; // jpeg_stop_jumpto belongs to a live frame

// Jumps to the call site that is armed for errors, or else to that for stops; returns when there is
// neither.
void leave_jpeg_library();

// From here on a fatal library error ends the process, with its own line.
void setjmp_abort_unexpected();

// Jumps to the armed call site. With none armed: prints that the jump is unexpected, and aborts.
[[noreturn]] void jump_to_jpeg_call_site();

// The library's error_exit: prints what the library has to say, then jumps.
[[noreturn]] void jpeg_error_exit_cbj(j_common_ptr cinfo);

// Closes the stream and frees the objects, in whatever state they are. May run twice.
void free_all_jpeg_fileio();

void reset_jpeg_reader(); // closes what is open; back to the values at program start
