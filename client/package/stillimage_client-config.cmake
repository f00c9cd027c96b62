# find_package(stillimage_client) gives the targets stillimage::stillimage_client (shared) and
# stillimage::stillimage_client_static. A C program that links the static one links the C++ runtime, too.
include("${CMAKE_CURRENT_LIST_DIR}/stillimage_client-targets.cmake")
