# Debian packages, which scripts/package builds with CPack. Each package contains one or more components.
#
#   stillimage                worker, client
#   libstillimage-client1     runtime
#   libstillimage-client-dev  development
#   gstreamer1.0-stillimage   gst
#
# The command-line program is in the same package as the worker: it is useless without one, and both
# then have the same protocol version.

set(STILLIMAGE_MAINTAINER "The stillimage authors <maintainers@stillimage.example>" CACHE STRING
    "Maintainer of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME stillimage)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${STILLIMAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Adds what only Debian requires: copyright, changelog, compressed manual pages.
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/finish.cmake")
set(CPACK_POST_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/repack.cmake")
set(CPACK_STILLIMAGE_DEBIAN_FILES "${CMAKE_CURRENT_LIST_DIR}")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL worker client runtime development)
set(CPACK_COMPONENT_WORKER_GROUP programs)
set(CPACK_COMPONENT_CLIENT_GROUP programs)
set(CPACK_COMPONENT_RUNTIME_GROUP runtime)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP development)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME stillimage)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION
"worker that serves a still picture from shared memory
Decodes a TIFF, JPEG, PNG, GIF or WebP picture once into planar 8-bit
video-range Y, U, V and A planes in shared memory, builds a pyramid of reduced
copies, and serves frame descriptors over a local socket, for media playout.

stillimage-client is a command-line program that saves and plays the picture.")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA
    "${CMAKE_CURRENT_LIST_DIR}/postinst;${CMAKE_CURRENT_LIST_DIR}/postrm")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libstillimage-client1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS stillimage)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_LIST_DIR}/triggers")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"library that gets pictures from a stillimage worker
Connects to a worker and provides its frames as planes in shared memory,
without copying a pixel. It starts no threads and prints nothing.

This package contains the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libstillimage-client-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libstillimage-client1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libpng-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"development files of the stillimage client library
Connects to a worker and provides its frames as planes in shared memory,
without copying a pixel. It starts no threads and prints nothing.

This package contains the headers for C and C++, the static library, and the
files for pkg-config and CMake.")

if(TARGET gststillimage)
    list(APPEND CPACK_COMPONENTS_ALL gst)
    set(CPACK_COMPONENT_GST_GROUP gst)
    set(CPACK_DEBIAN_GST_PACKAGE_NAME gstreamer1.0-stillimage)
    set(CPACK_DEBIAN_GST_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_GST_PACKAGE_RECOMMENDS stillimage)
    set(CPACK_DEBIAN_GST_DESCRIPTION
"GStreamer plugin that shows pictures from a stillimage worker
The element stillimagesrc connects to the worker that serves a picture, or
starts one, and passes its frames to a pipeline without copying them.")
endif()

include(CPack)
