# Finds json11 as json11::json11, in the first of these places where a test program compiles and runs:
# JSON11_ROOT, .deps/prefix (filled by scripts/setup), the system.

include("${CMAKE_CURRENT_LIST_DIR}/try_library.cmake")

try_library(json11
    HEADER json11.hpp
    LIBRARIES libjson11.a libjson11.so
    CHECK "${CMAKE_CURRENT_LIST_DIR}/checks/json11.cpp"
    EXPLAIN "json11 was not found.")
