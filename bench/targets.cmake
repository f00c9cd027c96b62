add_library(packet_echo STATIC packet_echo.cpp)
target_link_libraries(packet_echo PUBLIC stillimage_headers)
add_benchmark(frame_request_bench frame_request_bench.cpp LIBRARIES packet_echo packet_client picture_writers test_files)
add_benchmark(mipmap_filter_bench mipmap_filter_bench.cpp LIBRARIES stillimage_framebuffer)
add_benchmark(alpha_test_bench alpha_test_bench.cpp LIBRARIES stillimage_framebuffer stillimage_platform)
add_benchmark(pyramid_bench pyramid_bench.cpp LIBRARIES stillimage_framebuffer stillimage_platform)
add_benchmark(first_touch_bench first_touch_bench.cpp LIBRARIES platform_cnb)
add_benchmark(access_cache_bench access_cache_bench.cpp LIBRARIES platform_cnb)
add_benchmark(rescale_bench rescale_bench.cpp LIBRARIES stillimage_decode)
add_benchmark(pump_gap pump_gap.cpp LIBRARIES stillimage_client test_files)
add_benchmark(hostile_clients_bench hostile_clients_bench.cpp LIBRARIES worker_support hostile_clients)
target_compile_definitions(hostile_clients_bench PRIVATE
    STILLIMAGE_TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")
add_benchmark(colour_bench colour_bench.cpp LIBRARIES stillimage_decode)

# Compares the worker with the codec library alone. Needs the plain libjpeg 9 that bench/floor/setup builds.
set(floor_jpeg "${PROJECT_SOURCE_DIR}/.deps/floor")
if(NOT EXISTS "${floor_jpeg}/lib/libjpeg.a")
    message(STATUS "bench/floor/setup was not run: skipping the comparison with the libraries alone")
    return()
endif()

add_library(floor_memory STATIC floor/private_memory.c)
target_link_libraries(floor_memory PUBLIC stillimage_headers)
add_executable(jpeg_floor floor/jpeg_floor.c)
target_include_directories(jpeg_floor BEFORE PRIVATE "${floor_jpeg}/include")
target_link_libraries(jpeg_floor PRIVATE "${floor_jpeg}/lib/libjpeg.a" floor_memory stillimage_warnings)

# add_floor(NAME library...)
function(add_floor name)
    add_executable(${name} floor/${name}.c)
    target_link_libraries(${name} PRIVATE floor_memory stillimage_warnings ${ARGN})
endfunction()
add_floor(png_floor PNG::PNG)
add_floor(tiff_floor TIFF::TIFF)
add_floor(gif_floor GIF::GIF)
add_floor(webp_floor PkgConfig::webp)
add_floor(first_touch_floor)

add_executable(empty_program floor/empty.cpp)
target_link_libraries(empty_program PRIVATE stillimage_warnings stillimage_examine)
target_link_options(empty_program PRIVATE LINKER:--no-as-needed)

add_library(large_pictures STATIC
    large_gifs.cpp large_jpegs.cpp large_pngs.cpp large_tiffs.cpp large_webps.cpp photograph.cpp)
target_link_libraries(large_pictures PUBLIC jpeg_writer
    PRIVATE jpeg9::jpeg9 PNG::PNG TIFF::TIFF GIF::GIF PkgConfig::webp)
add_library(timed_process STATIC timed_process.cpp)
target_link_libraries(timed_process PUBLIC stillimage_headers)

add_benchmark(compare compare.cpp LIBRARIES large_pictures timed_process test_files)
target_compile_definitions(compare PRIVATE
    STILLIMAGE_PROGRAM="$<TARGET_FILE:stillimage>"
    JPEG_FLOOR="$<TARGET_FILE:jpeg_floor>"
    PNG_FLOOR="$<TARGET_FILE:png_floor>"
    TIFF_FLOOR="$<TARGET_FILE:tiff_floor>"
    GIF_FLOOR="$<TARGET_FILE:gif_floor>"
    WEBP_FLOOR="$<TARGET_FILE:webp_floor>"
    FIRST_TOUCH_FLOOR="$<TARGET_FILE:first_touch_floor>"
    EMPTY_PROGRAM="$<TARGET_FILE:empty_program>"
    EXAMPLE_PICTURE="${PROJECT_SOURCE_DIR}/examples/harvesters.jpeg"
    PICTURE_FOLDER="${CMAKE_CURRENT_BINARY_DIR}/pictures")
add_dependencies(compare stillimage empty_program jpeg_floor png_floor tiff_floor gif_floor webp_floor
    first_touch_floor)
