# libjpeg 9 as jpeg9::jpeg9, from the first of these places where a program against it compiles and
# runs: JPEG9_ROOT, .deps/prefix (filled by scripts/setup), the system. Most systems have another
# JPEG library of the same file name, so the version number is what decides.

include("${CMAKE_CURRENT_LIST_DIR}/try_library.cmake")

try_library(jpeg9
    HEADER jpeglib.h
    LIBRARIES libjpeg.a libjpeg.so
    CHECK "${CMAKE_CURRENT_LIST_DIR}/checks/jpeg9.c"
    EXPLAIN "libjpeg 9 (JPEG_LIB_VERSION 90) was not found.")

# libtiff calls another JPEG library with the same function names. Were ours visible in the program,
# the loader would hand them to libtiff, so they stay local to the program.
if(TARGET jpeg9::jpeg9)
    set_property(TARGET jpeg9::jpeg9 APPEND PROPERTY
        INTERFACE_LINK_OPTIONS LINKER:--exclude-libs,libjpeg.a)
endif()
