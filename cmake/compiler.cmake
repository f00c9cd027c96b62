# How everything is compiled: language level, warnings, hardening, sanitizers.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 17)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Kind of build" FORCE)
endif()

# A warning is an error; --compile-no-warning-as-error turns that off for an unknown compiler.
if(NOT DEFINED CMAKE_COMPILE_WARNING_AS_ERROR)
    set(CMAKE_COMPILE_WARNING_AS_ERROR ON)
endif()

find_program(STILLIMAGE_CCACHE ccache)
mark_as_advanced(STILLIMAGE_CCACHE)
if(STILLIMAGE_CCACHE AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER "${STILLIMAGE_CCACHE}")
    set(CMAKE_CXX_COMPILER_LAUNCHER "${STILLIMAGE_CCACHE}")
endif()

include(CheckPIESupported)
check_pie_supported()

# Every target of ours links this, privately.
add_library(stillimage_warnings INTERFACE)
target_compile_options(stillimage_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wconversion
    # What changes between setjmp and longjmp is lost; GCC can see most such places.
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wclobbered>
    $<$<COMPILE_LANG_AND_ID:C,GNU>:-Wclobbered>)

# Includes are written from the root of the tree.
include_directories("${PROJECT_SOURCE_DIR}")

add_compile_options(-fstack-protector-strong)
add_link_options(LINKER:-z,relro LINKER:-z,now)

if(STILLIMAGE_SANITIZE OR STILLIMAGE_FUZZ)
    # Not vptr: json11 is commonly built without the type information that this check reads.
    set(sanitizers -fsanitize=address,undefined -fno-sanitize=vptr)
    add_compile_options(${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(${sanitizers})
else()
    # Fortified library calls need an optimised build, and get in the sanitizers' way.
    add_compile_options("$<$<CONFIG:Release,RelWithDebInfo>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()

if(STILLIMAGE_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "STILLIMAGE_FUZZ needs clang: cmake --preset fuzz, or "
            "-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

include(GNUInstallDirs)

# A library that was found outside the system's folders is found there after installation, too.
set(CMAKE_INSTALL_RPATH_USE_LINK_PATH ON)
