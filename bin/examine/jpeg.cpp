#include "bin/examine/jpeg.h"

#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <unistd.h>

#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/reading_watch.h"
#include "bin/invariant.h"
#include "platform/item_metadata.h"

static_assert(JPEG_LIB_VERSION == 90);

namespace {

// The library settings for a colour space that can be shown.
struct jpeg_output {
    J_COLOR_SPACE colour_space;
    boolean fancy_upsampling;
    int monochrome; // for the image state; keep_monochrome: unchanged
    const char* message;
};

constexpr int keep_monochrome = -1;

constexpr jpeg_output jpeg_outputs[] = {
    {JCS_YCbCr, FALSE, 0, "JPEGLIB: Reading raw YCbCr pixel data\n"},
    {JCS_GRAYSCALE, FALSE, 1, "JPEGLIB: Reading raw grayscale data\n"},
    {JCS_YCCK, FALSE, keep_monochrome, "JPEGLIB: Hoo boy... YCCK.\n"},
    {JCS_CMYK, TRUE, keep_monochrome, "JPEGLIB: Hoo boy... CYMK.\n"},
};

struct sampling {
    int h;
    int v;
    bool operator==(const sampling&) const = default;
};

// Sampling factors of luma that can be shown when both chroma components have 1x1.
struct subsampling {
    sampling luma;
    uint8_t x_shift;
    uint8_t y_shift;
};

constexpr subsampling subsamplings[] = {
    {{1, 1}, 0, 0},
    {{2, 1}, 1, 0},
    {{1, 2}, 0, 1},
    {{2, 2}, 1, 1},
};

int refuse(const char* message)
{
    fputs(message, stderr);
    free_all_jpeg_fileio();
    return -1;
}

int open_stream()
{
    const int fd = metadata_v4_context_get_file_handle(vexa_meta, 0);
    if (fd < 0) {
        fputs("Unable to get file handle\n", stderr);
        return -1;
    }
    jpeg_fp = fdopen(fd, "rb");
    if (jpeg_fp == nullptr) {
        close(fd); // it belongs to no stream
        return refuse("fdopen() failed\n");
    }
    return 0;
}

int allocate_objects()
{
    jpeg_decompress =
        static_cast<jpeg_decompress_struct*>(calloc(1, sizeof(jpeg_decompress_struct)));
    jpeg_error_manager = static_cast<jpeg_error_mgr*>(calloc(1, sizeof(jpeg_error_mgr)));
    if (jpeg_decompress == nullptr || jpeg_error_manager == nullptr) {
        return refuse("Unable to allocate JPEG object\n");
    }
    INVARIANT(jpeg_decompress->image_width == 0, "jpeg_decompress->image_width == 0");
    return 0;
}

int create_and_read_header()
{
    jpeg_decompress->err = jpeg_std_error(jpeg_error_manager);
    jpeg_should_abort = 1;
    jpeg_error_manager->error_exit = jpeg_error_exit_cbj;
    // Armed before the decompressor exists, since creating it may run out of memory.
    if (setjmp(jpeg_error_jumpto) != 0) {
        return refuse("JPEG library panicked and attempted to exit. Decode failed\n");
    }
    jpeg_error_armed = true;
    jpeg_create_decompress(jpeg_decompress);
    open_jpeg_source(jpeg_decompress, fileno(jpeg_fp));
    const int result = jpeg_read_header(jpeg_decompress, FALSE);
    setjmp_abort_unexpected();
    return result < 1 ? refuse("JPEG library failed to read header\n") : 0;
}

// Newer releases of the library look at the component ids first and take many CMYK files for YCCK.
// Only the Adobe marker distinguishes the two.
void correct_four_component_colour_space(jpeg_decompress_struct* cinfo)
{
    if (cinfo->num_components == 4) {
        const bool transformed = cinfo->saw_Adobe_marker && cinfo->Adobe_transform != 0;
        cinfo->jpeg_color_space = transformed ? JCS_YCCK : JCS_CMYK;
    }
}

const char* colour_space_name(int code)
{
    static constexpr const char* names[] = {"Unknown", "Grayscale", "RGB",
                                            "YCbCr",   "CMYK",      "YCbCrK"};
    return code >= 0 && code < 6 ? names[code] : "???";
}

void report_header(const jpeg_decompress_struct& cinfo)
{
    const int stream_space = cinfo.jpeg_color_space;
    const int default_space = cinfo.out_color_space;
    fprintf(stderr,
            "JPEG: %d x %d image with %d components, colorspace #%d: %s  "
            "lib default out #%d: %s\n",
            static_cast<int>(cinfo.image_width), static_cast<int>(cinfo.image_height),
            cinfo.num_components, stream_space, colour_space_name(stream_space), default_space,
            colour_space_name(default_space));
}

int check_size(const jpeg_decompress_struct& cinfo)
{
    if (cinfo.image_width > image_size_limit || cinfo.image_height > image_size_limit) {
        fputs("JPEG image is WAY TOO LARGE\n", stderr);
        return -1;
    }
    return 0;
}

void report_components(const jpeg_decompress_struct& cinfo)
{
    INVARIANT(cinfo.comp_info != nullptr, "jpeg_decompress->comp_info != __null");
    for (int i = 0; i < cinfo.num_components; ++i) {
        const jpeg_component_info& component = cinfo.comp_info[i];
        fprintf(stderr, "Color channel[%lu]: ID %u Sampling factor %dx%d\n",
                static_cast<unsigned long>(i) + 1, static_cast<unsigned>(component.component_id),
                component.h_samp_factor, component.v_samp_factor);
    }
}

sampling factors_of(const jpeg_decompress_struct& cinfo, int component)
{
    const jpeg_component_info& info = cinfo.comp_info[component];
    return {info.h_samp_factor, info.v_samp_factor};
}

const subsampling* find_subsampling(const jpeg_decompress_struct& cinfo)
{
    constexpr sampling full = {1, 1};
    if (factors_of(cinfo, 1) != full || factors_of(cinfo, 2) != full) {
        return nullptr;
    }
    for (const subsampling& row : subsamplings) {
        if (row.luma == factors_of(cinfo, 0)) {
            return &row;
        }
    }
    return nullptr;
}

int check_component_count(const jpeg_decompress_struct& cinfo)
{
    if (cinfo.jpeg_color_space == JCS_YCbCr && cinfo.num_components < 3) {
        fputs("Weird YCbCr colorspace with less than 3 components, ignoring JPEG\n", stderr);
        return -1;
    }
    if (cinfo.jpeg_color_space == JCS_YCCK && cinfo.num_components < 4) {
        fputs("Weird YCCK colorspace with less than 4 components, ignoring JPEG\n", stderr);
        return -1;
    }
    return 0;
}

int check_k_channel(const jpeg_decompress_struct& cinfo)
{
    if (factors_of(cinfo, 3) != factors_of(cinfo, 0)) {
        fputs("Unsupported chroma subsampling on K channel\n", stderr);
        return -1;
    }
    fputs("YCCK K-channel is not subsampled. GOOD\n", stderr);
    return 0;
}

int check_header(jpeg_decompress_struct* cinfo)
{
    correct_four_component_colour_space(cinfo);
    report_header(*cinfo);
    if (check_size(*cinfo) != 0 || choose_jpeg_output(cinfo) != 0) {
        return -1;
    }
    report_components(*cinfo);
    return find_jpeg_chroma_shifts(*cinfo);
}

void publish_picture(const jpeg_decompress_struct& cinfo)
{
    image_has_alpha_channel = 0;
    image_width = static_cast<int>(cinfo.image_width);
    image_height = static_cast<int>(cinfo.image_height);
    // The decoders rely on a multiple of 32 rows.
    image_buffer_height = (image_height + 31) & ~31;
}

} // namespace

int choose_jpeg_output(jpeg_decompress_struct* cinfo)
{
    cinfo->do_block_smoothing = TRUE;
    for (const jpeg_output& row : jpeg_outputs) {
        if (row.colour_space == cinfo->jpeg_color_space) {
            cinfo->out_color_space = row.colour_space;
            cinfo->raw_data_out = TRUE;
            cinfo->do_fancy_upsampling = row.fancy_upsampling;
            if (row.monochrome != keep_monochrome) {
                image_is_monochrome = row.monochrome;
            }
            fputs(row.message, stderr);
            return 0;
        }
    }
    fputs("JPEGLIB: ERROR: Unsupported colorspace\n", stderr);
    return -1;
}

int find_jpeg_chroma_shifts(const jpeg_decompress_struct& cinfo)
{
    if (cinfo.jpeg_color_space == JCS_GRAYSCALE || cinfo.jpeg_color_space == JCS_CMYK) {
        image_chroma_x_shift = 0;
        image_chroma_y_shift = 0;
        return 0;
    }
    if (check_component_count(cinfo) != 0) {
        return -1;
    }
    const subsampling* found = find_subsampling(cinfo);
    if (found == nullptr) {
        fputs("Unsupported chroma subsampling scheme\n", stderr);
        return -1;
    }
    image_chroma_x_shift = found->x_shift;
    image_chroma_y_shift = found->y_shift;
    if (cinfo.jpeg_color_space == JCS_YCCK && check_k_channel(cinfo) != 0) {
        return -1;
    }
    fprintf(stderr, "JPEG chroma subsample %dx%d\n", 1 << image_chroma_x_shift,
            1 << image_chroma_y_shift);
    return 0;
}

int examine_jpeg_file()
{
    if (jpeg_fp != nullptr || jpeg_decompress != nullptr || jpeg_error_manager != nullptr) {
        fputs("BUG: examine_jpeg_file() when file already opened\n", stderr);
        return -1;
    }
    if (open_stream() != 0 || allocate_objects() != 0 || create_and_read_header() != 0) {
        return -1;
    }
    if (check_header(jpeg_decompress) != 0) {
        free_all_jpeg_fileio();
        return -1;
    }
    publish_picture(*jpeg_decompress);
    watch_decoding();
    return 0;
}
