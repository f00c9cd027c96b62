# find_package(stillimage_client) defines the targets stillimage::stillimage_client (shared) and
# stillimage::stillimage_client_static. The static one also needs libpng, and in a C program the C++ runtime.
include("${CMAKE_CURRENT_LIST_DIR}/stillimage_client-targets.cmake")
