#include "bin/examine/webp.h"

#include <cstdio>
#include <new>
#include <unistd.h>

#include "bin/examine/image_state.h"
#include "bin/examine/picture_input.h"
#include "platform/item_metadata.h"

uint8_t* webp_image = nullptr;
uint64_t webp_size = 0;
WebPBitstreamFeatures webp_bf_features = {};
WebPDecoderConfig webp_deccfg = {};
bool webp_deccfg_init = false;

namespace {

constexpr off_t min_file_size = 16;
constexpr off_t max_file_size = 0xFFFFFF;

int refuse(const char* message)
{
    fputs(message, stderr);
    free_all_webp();
    return 1;
}

// Fills webp_image. Returns 0 or the result of refuse(); the descriptor stays open.
int load_file(int fd)
{
    const off_t size = lseek(fd, 0, SEEK_END); // -1 is too small as well
    if (size < min_file_size) {
        return refuse("WebP file too small\n");
    }
    if (size > max_file_size) {
        return refuse("WebP file too large\n");
    }
    webp_size = static_cast<uint64_t>(size);
    webp_image = new (std::nothrow) uint8_t[webp_size];
    if (webp_image == nullptr) {
        return refuse("Cannot alloc memory for WebP\n");
    }
    picture_input input = open_picture_input(fd);
    if (lseek(fd, 0, SEEK_SET) != 0 || read_picture(&input, webp_image, webp_size) != webp_size) {
        return refuse("Failed to read WebP\n");
    }
    return 0;
}

int read_features()
{
    if (WebPGetFeatures(webp_image, webp_size, &webp_bf_features) != VP8_STATUS_OK) {
        return refuse("Failed to read WebP bitstream features\n");
    }
    fprintf(stderr, "WebP: %d x %d has_alpha=%u has_anim=%u formatcode=%u\n",
            webp_bf_features.width, webp_bf_features.height,
            static_cast<unsigned>(webp_bf_features.has_alpha),
            static_cast<unsigned>(webp_bf_features.has_animation),
            static_cast<unsigned>(webp_bf_features.format));
    if (webp_bf_features.width <= 0 || webp_bf_features.height <= 0) {
        return refuse("Invalid WebP state\n");
    }
    return 0;
}

void publish_image_state()
{
    image_width = webp_bf_features.width;
    image_height = webp_bf_features.height;
    image_buffer_height = round_up_to_16(image_height);
    image_chroma_x_shift = 1;
    image_chroma_y_shift = 1;
    image_has_alpha_channel = webp_bf_features.has_alpha != 0 ? 1 : 0;
    image_is_monochrome = 0;
    image_decoded_frames = 1; // animations are shown as a still
}

} // namespace

int examine_webp_file()
{
    if (webp_image != nullptr) {
        fputs("BUG: examine_webp_file() when already opened\n", stderr);
        return 1;
    }
    const int fd = metadata_v4_context_get_file_handle(vexa_meta, 0);
    if (fd < 0) {
        fputs("Unable to get file handle\n", stderr);
        return 1;
    }
    const int loaded = load_file(fd);
    close(fd);
    if (loaded != 0 || read_features() != 0) {
        return 1;
    }
    publish_image_state();
    return 0;
}

void free_all_webp_raw()
{
    delete[] webp_image;
    webp_image = nullptr;
}

void free_all_webp()
{
    free_all_webp_raw();
    if (webp_deccfg_init) {
        WebPFreeDecBuffer(&webp_deccfg.output);
        webp_deccfg_init = false;
    }
}

void reset_webp()
{
    free_all_webp();
    webp_size = 0;
    webp_bf_features = {};
    webp_deccfg = {};
}
