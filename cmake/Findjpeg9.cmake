# Finds libjpeg 9 as jpeg9::jpeg9, in the first of these places where a test program compiles and runs:
# JPEG9_ROOT, .deps/prefix (filled by scripts/setup), the system. Most systems have another JPEG library
# with the same file name, so the test program checks the version number.

include("${CMAKE_CURRENT_LIST_DIR}/try_library.cmake")

try_library(jpeg9
    HEADER jpeglib.h
    LIBRARIES libjpeg.a libjpeg.so
    CHECK "${CMAKE_CURRENT_LIST_DIR}/checks/jpeg9.c"
    EXPLAIN "libjpeg 9 (JPEG_LIB_VERSION 90) was not found.")

# libtiff calls another JPEG library with the same function names. If the program exported ours, the
# loader would bind libtiff to them, so they are not exported.
if(TARGET jpeg9::jpeg9)
    set_property(TARGET jpeg9::jpeg9 APPEND PROPERTY
        INTERFACE_LINK_OPTIONS LINKER:--exclude-libs,libjpeg.a)
endif()
