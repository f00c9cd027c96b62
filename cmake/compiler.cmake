# Compiler settings: language level, warnings, hardening, sanitizers.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 17)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Kind of build" FORCE)
endif()

# Warnings are errors; --compile-no-warning-as-error turns this off for other compilers.
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

# Each of our targets links to this, privately.
add_library(stillimage_warnings INTERFACE)
target_compile_options(stillimage_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wconversion
    # Warns of variables whose value longjmp may lose; only GCC has this warning.
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wclobbered>
    $<$<COMPILE_LANG_AND_ID:C,GNU>:-Wclobbered>)

# Includes are written from the root of the tree.
include_directories("${PROJECT_SOURCE_DIR}")

add_compile_options(-fstack-protector-strong)
add_link_options(LINKER:-z,relro LINKER:-z,now)

if(STILLIMAGE_SANITIZE OR STILLIMAGE_FUZZ)
    # Without vptr: json11 is usually built without the type information that this check needs.
    set(sanitizers -fsanitize=address,undefined -fno-sanitize=vptr)
    add_compile_options(${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(${sanitizers})
else()
    # Fortified library calls need an optimised build, and interfere with the sanitizers.
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

# Installed programs find libraries outside the system's folders in the same place.
set(CMAKE_INSTALL_RPATH_USE_LINK_PATH ON)
