// Compiled and run by scripts/setup and by CMake: tells a libjpeg 9 from any other JPEG library.
// The header and the library must both be version 9; a program that mixes them is refused by the
// library itself, at run time, through its error handler.
#include <stdio.h>

#include <jpeglib.h>

#if JPEG_LIB_VERSION != 90
#error "the jpeglib.h that was found is not version 90"
#endif

int main(void)
{
    struct jpeg_error_mgr errors;
    struct jpeg_decompress_struct decoder;
    decoder.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&decoder); // exits with a message when the versions differ
    jpeg_destroy_decompress(&decoder);
    printf("libjpeg %d\n", JPEG_LIB_VERSION);
    return 0;
}
