// Compiled and run by scripts/setup and by CMake: distinguishes libjpeg 9 from other JPEG
// libraries. Header and library must both be version 9. If they differ, the library itself reports
// an error at run time.
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
