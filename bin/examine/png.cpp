// Jumps of the library: each function that calls setjmp arms the jump, calls one inner function and
// checks how that ended. No frame from there down holds an object with a destructor, and what is
// read after a jump does not change after setjmp.
#include "bin/examine/png.h"

#include <algorithm>
#include <csetjmp>
#include <cstdlib>
#include <malloc.h>
#include <unistd.h>

#include "bin/examine/image_state.h"
#include "bin/examine/png_input.h"
#include "bin/examine/reading_watch.h"
#include "bin/invariant.h"
#include "platform/item_metadata.h"

FILE* png_fp = nullptr;
png_structp png_context = nullptr;
png_infop png_context_info = nullptr;
png_infop png_context_end = nullptr;
png_uint_32 png_width = 0;
png_uint_32 png_height = 0;
int png_bit_depth = 0;
int png_color_type = 0;
int png_interlace_method = 0;
int png_compression_method = 0;
int png_filter_method = 0;

namespace {

constexpr const char* library_version = "1.6.37"; // every 1.6 library accepts it
constexpr png_alloc_size_t max_chunk_size = 8'000'000;
constexpr png_uint_32 max_chunks = 1000; // that the library keeps for the header

// Limit on the library's memory for one file: a few rows and twice the largest chunk fit in.
constexpr png_alloc_size_t max_memory = 16 << 20;
png_alloc_size_t memory_taken = 0;

int refuse(const char* message)
{
    fputs(message, stderr);
    free_all_png_fileio();
    return -1;
}

[[noreturn]] void abort_jump(jmp_buf /*unused*/, int /*value*/)
{
    fputs("Unexpected PNG setjmp after header setup\n", stderr);
    abort();
}

int report_unexpected_error()
{
    fputs("Unexpected PNG error, giving up\n", stderr);
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    if (png_size_in_file(&width, &height) && !png_size_is_acceptable(width, height)) {
        fputs("Image width and height is unacceptable\n", stderr);
    }
    return -1;
}

void zero_header()
{
    png_width = png_height = 0;
    png_bit_depth = png_color_type = png_interlace_method = 0;
    png_compression_method = png_filter_method = 0;
}

void print_header()
{
    fprintf(stderr, "PNG info: %u x %u %d-bit colortype=%d ilmethod=%d cmethod=%d fmethod=%d\n",
            png_width, png_height, png_bit_depth, png_color_type, png_interlace_method,
            png_compression_method, png_filter_method);
    if ((png_color_type & PNG_COLOR_MASK_PALETTE) != 0) {
        fputs("  PNG_COLOR_MASK_PALETTE\n", stderr);
    }
    if ((png_color_type & PNG_COLOR_MASK_COLOR) != 0) {
        fputs("  PNG_COLOR_MASK_COLOR\n", stderr);
    }
    if ((png_color_type & PNG_COLOR_MASK_ALPHA) != 0) {
        fputs("  PNG_COLOR_MASK_ALPHA\n", stderr);
    }
}

void publish_image_state()
{
    image_height = static_cast<int>(png_height);
    image_width = static_cast<int>(png_width);
    image_buffer_height = round_up_to_16(image_height);
    image_chroma_x_shift = 0;
    image_chroma_y_shift = 0;
    // A palette with a transparency chunk gets no alpha plane.
    image_has_alpha_channel = (png_color_type & PNG_COLOR_MASK_ALPHA) != 0 ? 1 : 0;
    image_is_monochrome = (png_color_type & ~PNG_COLOR_MASK_ALPHA) == 0 ? 1 : 0;
}

void set_transformations()
{
    png_set_scale_16(png_context);
    png_set_strip_16(png_context);
    png_set_packing(png_context);
}

int read_header()
{
    open_png_input(png_context, fileno(png_fp));
    png_read_info(png_context, png_context_info);
    zero_header();
    if (png_get_IHDR(png_context, png_context_info, &png_width, &png_height, &png_bit_depth,
                     &png_color_type, &png_interlace_method, &png_compression_method,
                     &png_filter_method) == 0) {
        fputs("Failed to read PNG IHDR\n", stderr);
        return -1;
    }
    print_header();
    if (!png_size_is_acceptable(png_width, png_height)) {
        fputs("Image width and height is unacceptable\n", stderr);
        return -1;
    }
    publish_image_state();
    set_transformations();
    watch_decoding();
    return 0;
}

int read_header_armed()
{
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        return report_unexpected_error();
    }
    const int result = read_header();
    png_abort_unexpected();
    return result;
}

void destroy_reader_armed()
{
    if (setjmp(png_jmpbuf(png_context)) != 0) {
        fputs("PNG longjmp while freeing struct. Giving up.\n", stderr);
        fputs("This may show up as a memory leak.\n", stderr);
        return;
    }
    png_destroy_read_struct(&png_context, &png_context_info, &png_context_end);
    INVARIANT(png_context == nullptr, "png_context == __null");
    INVARIANT(png_context_info == nullptr, "png_context_info == __null");
    INVARIANT(png_context_end == nullptr, "png_context_end == __null");
}

// Before it reads a chunk, the library allocates and clears as many bytes as the chunk claims to
// have, even beyond the library's own limit on chunks, and it keeps what it reads.
png_voidp allocate_limited(png_structp /*context*/, png_alloc_size_t size)
{
    void* const block = size <= max_memory - memory_taken ? malloc(size) : nullptr;
    const size_t taken = malloc_usable_size(block);
    if (taken > max_memory - memory_taken) {
        free(block);
        return nullptr;
    }
    memory_taken += taken;
    return block;
}

// The library's own structures were allocated before counting began, and are released last.
void release_counted(png_structp /*context*/, png_voidp block)
{
    memory_taken -= std::min<png_alloc_size_t>(memory_taken, malloc_usable_size(block));
    free(block);
}

// Limits what a hostile file can make the library allocate. Called before the first byte is read.
void set_limits()
{
    memory_taken = 0;
    png_set_mem_fn(png_context, nullptr, allocate_limited, release_counted);
    png_set_user_limits(png_context, image_size_limit, image_size_limit);
    png_set_chunk_malloc_max(png_context, max_chunk_size);
    png_set_chunk_cache_max(png_context, max_chunks);
}

} // namespace

bool png_size_is_acceptable(png_uint_32 width, png_uint_32 height)
{
    constexpr png_uint_32 limit = image_size_limit;
    return width >= 1 && width <= limit && height >= 1 && height <= limit;
}

void png_abort_unexpected()
{
    png_set_longjmp_fn(png_context, abort_jump, sizeof(jmp_buf));
}

void png_error_cb(png_structp /*context*/, png_const_charp message)
{
    fprintf(stderr, "PNG ERROR: %s\n", message);
}

void png_warning_cb(png_structp /*context*/, png_const_charp message)
{
    fprintf(stderr, "PNG WARNING: %s\n", message);
}

int examine_png_file()
{
    if (png_fp != nullptr || png_context != nullptr || png_context_info != nullptr) {
        fputs("BUG: examine_png_file() when already opened\n", stderr);
        return -1;
    }
    const int fd = metadata_v4_context_get_file_handle(vexa_meta, 0);
    if (fd < 0) {
        fputs("Unable to get file handle\n", stderr);
        return -1;
    }
    png_fp = fdopen(fd, "rb");
    if (png_fp == nullptr) {
        close(fd);
        return refuse("fdopen() failed\n");
    }
    png_context = png_create_read_struct(library_version, nullptr, nullptr, nullptr);
    if (png_context == nullptr) {
        return refuse("failed to create PNG read struct\n");
    }
    png_context_info = png_create_info_struct(png_context);
    if (png_context_info == nullptr) {
        return refuse("Failed to create PNG info struct\n");
    }
    png_voidp const own_structure = png_context;
    png_set_error_fn(png_context, own_structure, png_error_cb, png_warning_cb);
    set_limits();
    if (read_header_armed() != 0) {
        free_all_png_fileio();
        return -1;
    }
    return 0;
}

void free_all_png_fileio()
{
    if (png_context != nullptr) {
        destroy_reader_armed();
    }
    if (png_fp != nullptr) {
        fclose(png_fp);
        png_fp = nullptr;
    }
    zero_header();
}
