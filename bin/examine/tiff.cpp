// Two tables: the tags that are read, and the colour models that are accepted.
#include "bin/examine/tiff.h"

#include <cstdio>

#include "bin/examine/image_state.h"
#include "bin/examine/tiff_open.h"
#include "platform/item_metadata.h"

TIFF* tiff_image = nullptr;
uint32_t tiff_bps = 0;
uint32_t tiff_orientation = 0;
uint32_t tiff_spp = 0;
uint32_t tiff_fillorder = 0;
uint32_t tiff_photometric = 0;
uint32_t tiff_width = 0;
uint32_t tiff_height = 0;
uint32_t tiff_stripheight = 0;
uint32_t tiff_inkset = 0;
uint32_t tiff_bytes_per_row = 0;
uint32_t tiff_stripsize = 0;
uint32_t tiff_strips = 0;

namespace {

constexpr uint32_t max_samples = 6;
constexpr uint32_t never_alpha = UINT32_MAX;

struct wanted_tag {
    uint32_t tag;
    int bits; // of the tag's value in the library: 16 or 32
    bool mandatory;
    uint32_t* value;
    const char* absent;
};

constexpr wanted_tag wanted_tags[] = {
    {TIFFTAG_BITSPERSAMPLE, 16, true, &tiff_bps, "TIFF bits per sample not available\n"},
    {TIFFTAG_ORIENTATION, 16, false, &tiff_orientation, "TIFF orientation not available\n"},
    {TIFFTAG_SAMPLESPERPIXEL, 16, true, &tiff_spp, "TIFF samples/pixel not available\n"},
    {TIFFTAG_FILLORDER, 16, false, &tiff_fillorder, "TIFF fillorder not available\n"},
    {TIFFTAG_PHOTOMETRIC, 16, true, &tiff_photometric, "TIFF photometric not available\n"},
    {TIFFTAG_IMAGEWIDTH, 32, true, &tiff_width, "TIFF width not available\n"},
    {TIFFTAG_IMAGELENGTH, 32, true, &tiff_height, "TIFF length not available\n"},
    {TIFFTAG_ROWSPERSTRIP, 32, true, &tiff_stripheight, "TIFF strip height not available\n"},
    {TIFFTAG_INKSET, 16, false, &tiff_inkset, "TIFF inkset not available\n"},
};

struct colour_model {
    uint32_t photometric;
    uint32_t min_samples;
    const char* too_few_samples;
    int is_monochrome;
    uint32_t colour_samples; // a further sample is alpha
};

constexpr const char* too_few_for_rgb = "RGB format requires at least 3 channels\n";
constexpr const char* too_few_for_ycbcr = "YCbCr format requires at least 3 channels\n";
constexpr const char* too_few_for_gray =
    "white/black grayscale format requires at least 1 channel\n";
constexpr const char* too_few_for_palette = "palettized format requires at least 1 channel\n";
constexpr const char* too_few_for_cmyk = "cmyk format requires at least 4 channels\n";

constexpr colour_model colour_models[] = {
    {PHOTOMETRIC_RGB, 3, too_few_for_rgb, 0, 3},
    {PHOTOMETRIC_YCBCR, 3, too_few_for_ycbcr, 0, 3},
    {PHOTOMETRIC_MINISWHITE, 1, too_few_for_gray, 1, 1},
    {PHOTOMETRIC_MINISBLACK, 1, too_few_for_gray, 1, 1},
    {PHOTOMETRIC_PALETTE, 1, too_few_for_palette, 0, never_alpha},
    {PHOTOMETRIC_SEPARATED, 4, too_few_for_cmyk, 0, 4},
};

int refuse(const char* message)
{
    fputs(message, stderr);
    free_all_tiff();
    return 1;
}

void zero_tags()
{
    for (const wanted_tag& wanted : wanted_tags) {
        *wanted.value = 0;
    }
    tiff_bytes_per_row = tiff_stripsize = tiff_strips = 0;
}

// --- steps of the examination, each 0 or the result of refuse() ---------------------------------

bool read_tag(const wanted_tag& wanted)
{
    if (wanted.bits == 32) {
        return TIFFGetField(tiff_image, wanted.tag, wanted.value) != 0;
    }
    uint16_t value = 0;
    const bool found = TIFFGetField(tiff_image, wanted.tag, &value) != 0;
    *wanted.value = value;
    return found;
}

int read_tags()
{
    for (const wanted_tag& wanted : wanted_tags) {
        if (read_tag(wanted)) {
            continue;
        }
        if (wanted.mandatory) {
            return refuse(wanted.absent);
        }
        fputs(wanted.absent, stderr);
    }
    return 0;
}

int read_strip_geometry()
{
    uint16_t planar = 0;
    // Intended: a query that fails leaves 0, so separate planes are in effect accepted.
    if (TIFFGetField(tiff_image, TIFFTAG_PLANARCONFIG, &planar) == 0 &&
        planar == PLANARCONFIG_SEPARATE) {
        return refuse("TIFF must not be planar\n");
    }
    tiff_bytes_per_row = static_cast<uint32_t>(TIFFScanlineSize(tiff_image));
    tiff_stripsize = static_cast<uint32_t>(TIFFStripSize(tiff_image));
    tiff_strips = TIFFNumberOfStrips(tiff_image);
    if (tiff_strips == 0 || tiff_stripsize == 0) {
        return refuse("TIFF strip info not available\n");
    }
    return 0;
}

void print_header()
{
    fprintf(stderr,
            "TIFF: %d x %d %d-bit/sample %d sample/pixel fill=%d photo=%d orient=%d inkset=%d\n",
            static_cast<int>(tiff_width), static_cast<int>(tiff_height), static_cast<int>(tiff_bps),
            static_cast<int>(tiff_spp), static_cast<int>(tiff_fillorder),
            static_cast<int>(tiff_photometric), static_cast<int>(tiff_orientation),
            static_cast<int>(tiff_inkset));
    fprintf(stderr, "      %d strips with %d pixels %d rows per strip (%d per line)\n",
            static_cast<int>(tiff_strips), static_cast<int>(tiff_stripsize),
            static_cast<int>(tiff_stripheight), static_cast<int>(tiff_bytes_per_row));
}

int check_geometry()
{
    constexpr uint32_t limit = image_size_limit;
    if (tiff_width < 1 || tiff_width > limit || tiff_height < 1 || tiff_height > limit) {
        return refuse("Too large or invalid TIFF dimensions\n");
    }
    if (tiff_bytes_per_row == 0 || tiff_stripsize == 0 || tiff_strips == 0) {
        return refuse("Invalid strip info\n");
    }
    if (tiff_spp > max_samples) {
        return refuse("Too many channels\n");
    }
    return 0;
}

void publish_size()
{
    image_width = static_cast<int>(tiff_width);
    image_height = static_cast<int>(tiff_height);
    image_buffer_height = round_up_to_16(image_height);
    image_chroma_x_shift = 0;
    image_chroma_y_shift = 0;
}

// Null for a model that cannot be served.
const colour_model* find_colour_model()
{
    if (tiff_photometric == PHOTOMETRIC_SEPARATED && tiff_inkset != INKSET_CMYK) {
        return nullptr;
    }
    for (const colour_model& model : colour_models) {
        if (model.photometric == tiff_photometric) {
            return &model;
        }
    }
    return nullptr;
}

bool shift_of_factor(unsigned factor, uint8_t* shift)
{
    switch (factor) {
    case 1:
        *shift = 0;
        return true;
    case 2:
        *shift = 1;
        return true;
    case 4:
        *shift = 2;
        return true;
    default:
        return false;
    }
}

int read_chroma_shifts()
{
    uint16_t horizontal = 2;
    uint16_t vertical = 2;
    if (TIFFGetField(tiff_image, TIFFTAG_YCBCRSUBSAMPLING, &horizontal, &vertical) == 0) {
        fputs("Warning: TIFF library does not provide YCbCr subsampling info\n", stderr);
    }
    fprintf(stderr, "YCbCr subsampling: %d, %d\n", horizontal, vertical);
    if (!shift_of_factor(horizontal, &image_chroma_x_shift) ||
        !shift_of_factor(vertical, &image_chroma_y_shift)) {
        return refuse("Invalid YCbCr subsampling\n");
    }
    return 0;
}

int publish_colour_model()
{
    const colour_model* model = find_colour_model();
    if (model == nullptr) {
        return refuse("Unknown TIFF color format\n");
    }
    if (tiff_spp < model->min_samples) {
        return refuse(model->too_few_samples);
    }
    image_is_monochrome = model->is_monochrome;
    image_has_alpha_channel = tiff_spp > model->colour_samples ? 1 : 0;
    return model->photometric == PHOTOMETRIC_YCBCR ? read_chroma_shifts() : 0;
}

int examine_open_tiff()
{
    if (read_tags() != 0 || read_strip_geometry() != 0) {
        return 1;
    }
    print_header();
    if (check_geometry() != 0) {
        return 1;
    }
    publish_size();
    return publish_colour_model();
}

} // namespace

int examine_tiff_file()
{
    if (tiff_image != nullptr) {
        fputs("BUG: examine_tiff_file() when already opened\n", stderr);
        return 1;
    }
    zero_tags();
    const int fd = metadata_v4_context_get_file_handle(vexa_meta, 0);
    if (fd < 0) {
        fputs("Unable to get file handle\n", stderr);
        return 1;
    }
    tiff_image = open_tiff(fd, vexa_meta->file_name);
    if (tiff_image == nullptr) {
        return refuse("TIFF did not open file\n");
    }
    return examine_open_tiff();
}

void free_all_tiff()
{
    if (tiff_image != nullptr) {
        TIFFClose(tiff_image);
        tiff_image = nullptr;
    }
    tiff_bps = tiff_spp = tiff_fillorder = tiff_photometric = 0;
    tiff_stripheight = tiff_bytes_per_row = tiff_stripsize = tiff_strips = 0;
}

void reset_tiff()
{
    free_all_tiff();
    zero_tags();
}
