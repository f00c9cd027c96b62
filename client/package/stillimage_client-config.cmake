# find_package(stillimage_client) gives the targets stillimage::stillimage_client (shared) and
# stillimage::stillimage_client_static. The static one needs libpng, and a C program the C++ runtime, too.
include("${CMAKE_CURRENT_LIST_DIR}/stillimage_client-targets.cmake")
