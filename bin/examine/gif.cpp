// The library's own loader sorts the rows of interlaced frames and leaves what a cut frame lacks as
// it found the memory. So the records are read here one by one, into rasters that start as zeros.
#include "bin/examine/gif.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "bin/examine/image_state.h"
#include "platform/media_item.h"

GifFileType* gif_image = nullptr;

namespace {

constexpr int control_bytes = 4;
constexpr unsigned default_delay = 10; // also for a delay that would be too short to be shown
constexpr unsigned shortest_delay = 2;

int refuse(const char* message)
{
    fputs(message, stderr);
    free_all_gif();
    return 1;
}

// Zeroed memory for a frame's indices, released by the library; null when the frame has no pixels
// or more than the library can count.
GifByteType* new_raster(const GifImageDesc& frame)
{
    if (frame.Width <= 0 || frame.Height <= 0 || frame.Width > INT_MAX / frame.Height) {
        return nullptr;
    }
    return static_cast<GifByteType*>(
        calloc(static_cast<size_t>(frame.Width), static_cast<size_t>(frame.Height)));
}

// Extensions are collected in the file's record until the frame that they belong to is complete.
void hand_extensions_over(GifFileType* gif, SavedImage* frame)
{
    if (gif->ExtensionBlocks == nullptr) {
        return;
    }
    frame->ExtensionBlocks = gif->ExtensionBlocks;
    frame->ExtensionBlockCount = gif->ExtensionBlockCount;
    gif->ExtensionBlocks = nullptr;
    gif->ExtensionBlockCount = 0;
}

int load_frame(GifFileType* gif)
{
    if (DGifGetImageDesc(gif) == GIF_ERROR) {
        return GIF_ERROR;
    }
    SavedImage* frame = &gif->SavedImages[gif->ImageCount - 1];
    frame->RasterBits = new_raster(frame->ImageDesc);
    if (frame->RasterBits == nullptr) {
        return GIF_ERROR;
    }
    const int pixels = frame->ImageDesc.Width * frame->ImageDesc.Height;
    if (DGifGetLine(gif, frame->RasterBits, pixels) == GIF_ERROR) {
        return GIF_ERROR;
    }
    hand_extensions_over(gif, frame);
    return GIF_OK;
}

int add_extension_block(GifFileType* gif, int code, GifByteType* data)
{
    return GifAddExtensionBlock(&gif->ExtensionBlockCount, &gif->ExtensionBlocks, code, data[0],
                                data + 1);
}

// Each data block becomes a block of its own: the first with the extension's code, the others with
// the library's code for a continuation. `data` is a length, then bytes; null at the end of the
// extension.
int load_extension(GifFileType* gif)
{
    int code = 0;
    GifByteType* data = nullptr;
    if (DGifGetExtension(gif, &code, &data) == GIF_ERROR) {
        return GIF_ERROR;
    }
    if (data != nullptr && add_extension_block(gif, code, data) == GIF_ERROR) {
        return GIF_ERROR;
    }
    // Kept as in the library's loader: behind an extension without any data one more block is read.
    do {
        if (DGifGetExtensionNext(gif, &data) == GIF_ERROR) {
            return GIF_ERROR;
        }
        if (data != nullptr &&
            add_extension_block(gif, CONTINUE_EXT_FUNC_CODE, data) == GIF_ERROR) {
            return GIF_ERROR;
        }
    } while (data != nullptr);
    return GIF_OK;
}

int load_record(GifFileType* gif, GifRecordType kind)
{
    switch (kind) {
    case IMAGE_DESC_RECORD_TYPE:
        return load_frame(gif);
    case EXTENSION_RECORD_TYPE:
        return load_extension(gif);
    default:
        return GIF_OK;
    }
}

void publish_image_state()
{
    image_width = gif_image->SWidth;
    image_height = gif_image->SHeight;
    image_buffer_height = round_up_to_16(image_height);
    image_chroma_x_shift = 0;
    image_chroma_y_shift = 0;
    image_has_alpha_channel = 1; // whatever the frames say
    image_is_monochrome = 0;
    image_decoded_frames = static_cast<uint64_t>(gif_image->ImageCount);
    image_mapping_total = gif_running_time(*gif_image);
}

} // namespace

gif_frame_control read_gif_frame_control(const SavedImage& frame)
{
    gif_frame_control control = {0, default_delay};
    for (int i = 0; i < frame.ExtensionBlockCount; ++i) {
        const ExtensionBlock& block = frame.ExtensionBlocks[i];
        if (block.Function != GRAPHICS_EXT_FUNC_CODE || block.ByteCount < control_bytes) {
            continue;
        }
        const unsigned delay = block.Bytes[1] | unsigned{block.Bytes[2]} << 8;
        control.disposal = block.Bytes[0] >> 2 & 7;
        control.delay = delay < shortest_delay ? default_delay : delay;
    }
    return control;
}

uint64_t gif_running_time(const GifFileType& gif)
{
    uint64_t total = 0;
    for (int i = 0; i < gif.ImageCount; ++i) {
        total += read_gif_frame_control(gif.SavedImages[i]).delay;
    }
    return std::max<uint64_t>(total, 1);
}

int load_gif(GifFileType* gif)
{
    for (;;) {
        GifRecordType kind = UNDEFINED_RECORD_TYPE;
        if (DGifGetRecordType(gif, &kind) == GIF_ERROR || load_record(gif, kind) == GIF_ERROR) {
            return GIF_ERROR;
        }
        if (kind == TERMINATE_RECORD_TYPE) {
            return gif->ImageCount > 0 ? GIF_OK : GIF_ERROR;
        }
    }
}

int examine_gif_file()
{
    if (gif_image != nullptr) {
        fputs("BUG: examine_gif_file() when already opened\n", stderr);
        return 1;
    }
    const int fd = metadata_v4_context_get_file_handle(vexa_meta, 0);
    if (fd < 0) {
        fputs("Unable to get file handle\n", stderr);
        return 1;
    }
    gif_image = DGifOpenFileHandle(fd, nullptr); // takes the descriptor in any case
    if (gif_image == nullptr) {
        return refuse("Cannot open GIF\n");
    }
    if (load_gif(gif_image) != GIF_OK) {
        fputs("GIF reading error (?)\n", stderr);
    }
    fprintf(stderr, "GIF: Screen is %u x %u colorres=%u bgcolor=%u ImageCount=%u\n",
            static_cast<unsigned>(gif_image->SWidth), static_cast<unsigned>(gif_image->SHeight),
            static_cast<unsigned>(gif_image->SColorResolution),
            static_cast<unsigned>(gif_image->SBackGroundColor),
            static_cast<unsigned>(gif_image->ImageCount));
    if (gif_image->SWidth == 0 || gif_image->SHeight == 0 || gif_image->ImageCount == 0) {
        return refuse("Invalid GIF state\n");
    }
    publish_image_state();
    return 0;
}

void free_all_gif()
{
    if (gif_image != nullptr) {
        DGifCloseFile(gif_image, nullptr);
        gif_image = nullptr;
    }
}
