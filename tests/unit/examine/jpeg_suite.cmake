# The JPEG part of the examination tests, with calls that can be made to fail.
add_suite(unit_examine_jpeg
    SOURCES jpeg_failing_calls.cpp jpeg_header_test.cpp jpeg_reader_test.cpp jpeg_test.cpp
    LIBRARIES jpeg_test_support)
target_link_options(unit_examine_jpeg PRIVATE
    LINKER:--wrap=calloc,--wrap=malloc,--wrap=fdopen,--wrap=jpeg_read_header)
