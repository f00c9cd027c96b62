// The library's own loader reorders the rows of interlaced frames, leaves the missing pixels of a
// truncated frame uninitialised, and cannot be interrupted. So this unit reads the records one by
// one and the rasters row by row.
#include "bin/examine/gif_loading.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "bin/examine/gif_interlacing.h"
#include "bin/quickidle.h"
#include "platform/run_state.h"

namespace {

constexpr int control_bytes = 4;
constexpr unsigned default_delay = 10; // also replaces a delay below min_delay
constexpr unsigned min_delay = 2;
constexpr int max_row_width = 65535;

// In pixels. A record counts like this many pixels; the work between two pumps takes about 50 us.
constexpr int work_between_pumps = 16384;
constexpr int work_of_a_record = 256;

// Limit on the pixels off the screen that are read from one file, one or two seconds of work. No
// honest file comes near it, but a few bytes can hold thousands of pixels.
constexpr uint64_t max_unseen_pixels = uint64_t{1} << 29;

struct gif_reading {
    GifFileType* gif;
    uint64_t kept_frames;
    gif_contents found;
    int work; // since the last pump
    uint64_t unseen_pixels;
};

// Counts the work and serves the socket when it is due. False when the process has to end.
bool may_continue(gif_reading* reading, int work)
{
    reading->work += work;
    if (reading->work >= work_between_pumps) {
        reading->work = 0;
        quickidle_when_due();
    }
    return DIE4 == 0;
}

// --- rasters ------------------------------------------------------------------------------------

struct visible_part {
    int width;
    int height;
};

visible_part visible_part_of(const GifFileType& gif)
{
    const GifImageDesc& frame = gif.Image;
    return {std::clamp(gif.SWidth - frame.Left, 0, frame.Width),
            std::clamp(gif.SHeight - frame.Top, 0, frame.Height)};
}

// Where the rows go. Rows that are not kept, or not in one piece, are read into a row of their own.
struct raster_target {
    GifByteType* bytes; // null: the rows are not kept
    visible_part part;
    bool in_file_order; // whole rows, stored in the order in which they are read
};

int read_row(GifFileType* gif, int row, const raster_target& target)
{
    static GifByteType one_row[max_row_width];
    const GifImageDesc& frame = gif->Image;
    const auto frame_width = static_cast<size_t>(frame.Width);
    if (target.bytes != nullptr && target.in_file_order) {
        return DGifGetLine(gif, target.bytes + static_cast<size_t>(row) * frame_width, frame.Width);
    }
    memset(one_row, 0, frame_width);
    const int result = DGifGetLine(gif, one_row, frame.Width);
    const auto height = static_cast<unsigned>(frame.Height);
    const int y =
        frame.Interlace
            ? static_cast<int>(gif_interlacing_function(static_cast<unsigned>(row), height))
            : row;
    if (target.bytes != nullptr && y < target.part.height) {
        const auto width = static_cast<size_t>(target.part.width);
        memcpy(target.bytes + static_cast<size_t>(y) * width, one_row, width);
    }
    return result;
}

int read_rows(gif_reading* reading, const raster_target& target)
{
    const GifImageDesc frame = reading->gif->Image;
    const visible_part part = visible_part_of(*reading->gif);
    for (int row = 0; row < frame.Height; ++row) {
        // For the sum it does not matter which rows of an interlaced frame are the unseen ones.
        const int unseen = row < part.height ? frame.Width - part.width : frame.Width;
        reading->unseen_pixels += static_cast<uint64_t>(unseen);
        if (reading->unseen_pixels > max_unseen_pixels ||
            read_row(reading->gif, row, target) == GIF_ERROR ||
            !may_continue(reading, frame.Width)) {
            return GIF_ERROR;
        }
    }
    return GIF_OK;
}

// Allocates zeroed memory for the visible pixels, which the library frees. False without memory.
bool make_raster(SavedImage* frame, raster_target* target)
{
    target->in_file_order = target->part.width == frame->ImageDesc.Width &&
                            target->part.height == frame->ImageDesc.Height;
    if (target->part.width == 0 || target->part.height == 0) {
        return true;
    }
    target->bytes = static_cast<GifByteType*>(
        calloc(static_cast<size_t>(target->part.width), static_cast<size_t>(target->part.height)));
    if (target->bytes != nullptr && !target->in_file_order) {
        frame->ImageDesc.Width = target->part.width;
        frame->ImageDesc.Height = target->part.height;
        frame->ImageDesc.Interlace = false;
    }
    frame->RasterBits = target->bytes;
    return target->bytes != nullptr;
}

// The library counts a frame's pixels in an int.
bool can_be_read(const GifImageDesc& frame)
{
    return frame.Width > 0 && frame.Height > 0 && frame.Width <= INT_MAX / frame.Height;
}

// --- frames -------------------------------------------------------------------------------------

// Blocks are collected in the file's record until their frame is complete.
SavedImage take_collected_blocks(GifFileType* gif)
{
    SavedImage blocks = {};
    blocks.ExtensionBlocks = gif->ExtensionBlocks;
    blocks.ExtensionBlockCount = gif->ExtensionBlockCount;
    gif->ExtensionBlocks = nullptr;
    gif->ExtensionBlockCount = 0;
    return blocks;
}

// `frame`: null for a frame that is not kept.
void complete_frame(gif_reading* reading, SavedImage* frame)
{
    SavedImage blocks = take_collected_blocks(reading->gif);
    reading->found.running_time -= default_delay;
    reading->found.running_time += read_gif_frame_control(blocks).delay;
    if (frame != nullptr) {
        frame->ExtensionBlocks = blocks.ExtensionBlocks;
        frame->ExtensionBlockCount = blocks.ExtensionBlockCount;
    } else {
        GifFreeExtensions(&blocks.ExtensionBlockCount, &blocks.ExtensionBlocks);
    }
}

// The frame has the default delay until it is complete.
void count_frame(gif_reading* reading)
{
    ++reading->found.frames;
    reading->found.running_time += default_delay;
}

int skip_frame(gif_reading* reading)
{
    if (DGifGetImageHeader(reading->gif) == GIF_ERROR) {
        return GIF_ERROR;
    }
    count_frame(reading);
    if (!can_be_read(reading->gif->Image) || read_rows(reading, {}) == GIF_ERROR) {
        return GIF_ERROR;
    }
    complete_frame(reading, nullptr);
    return GIF_OK;
}

int keep_frame(gif_reading* reading)
{
    GifFileType* gif = reading->gif;
    if (DGifGetImageDesc(gif) == GIF_ERROR) {
        return GIF_ERROR;
    }
    count_frame(reading);
    SavedImage* frame = &gif->SavedImages[gif->ImageCount - 1];
    raster_target target = {nullptr, visible_part_of(*gif), true};
    if (!can_be_read(gif->Image) || !make_raster(frame, &target) ||
        read_rows(reading, target) == GIF_ERROR) {
        return GIF_ERROR;
    }
    complete_frame(reading, frame);
    return GIF_OK;
}

// --- extensions ---------------------------------------------------------------------------------

bool declares_transparency(const GifByteType* block)
{
    return (block[0] & 1) != 0;
}

// A frame takes disposal and delay from its last block, and its transparent index from the last
// block that has one. So at most two blocks matter: one that declares transparency, then one that
// does not.
void drop_superseded_blocks(GifFileType* gif, const GifByteType* newer)
{
    if (declares_transparency(newer)) {
        GifFreeExtensions(&gif->ExtensionBlockCount, &gif->ExtensionBlocks);
    } else if (gif->ExtensionBlockCount > 0 &&
               !declares_transparency(gif->ExtensionBlocks[gif->ExtensionBlockCount - 1].Bytes)) {
        free(gif->ExtensionBlocks[--gif->ExtensionBlockCount].Bytes);
    }
}

// `data`: a length, then that many bytes.
int collect_block(GifFileType* gif, int code, GifByteType* data)
{
    if (code != GRAPHICS_EXT_FUNC_CODE || data[0] < control_bytes) {
        return GIF_OK;
    }
    drop_superseded_blocks(gif, data + 1);
    return GifAddExtensionBlock(&gif->ExtensionBlockCount, &gif->ExtensionBlocks, code,
                                control_bytes, data + 1);
}

// Only the first data block of an extension can be a graphic control.
int load_extension(gif_reading* reading)
{
    int code = 0;
    GifByteType* data = nullptr;
    if (DGifGetExtension(reading->gif, &code, &data) == GIF_ERROR) {
        return GIF_ERROR;
    }
    if (data != nullptr && collect_block(reading->gif, code, data) == GIF_ERROR) {
        return GIF_ERROR;
    }
    // As in the library's loader, one more block is read after an extension without any data.
    do {
        if (DGifGetExtensionNext(reading->gif, &data) == GIF_ERROR ||
            !may_continue(reading, work_of_a_record)) {
            return GIF_ERROR;
        }
    } while (data != nullptr);
    return GIF_OK;
}

int load_record(gif_reading* reading, GifRecordType kind)
{
    switch (kind) {
    case IMAGE_DESC_RECORD_TYPE:
        return reading->found.frames < reading->kept_frames ? keep_frame(reading)
                                                            : skip_frame(reading);
    case EXTENSION_RECORD_TYPE:
        return load_extension(reading);
    default:
        return GIF_OK;
    }
}

int load_records(gif_reading* reading)
{
    for (;;) {
        GifRecordType kind = UNDEFINED_RECORD_TYPE;
        if (!may_continue(reading, work_of_a_record) ||
            DGifGetRecordType(reading->gif, &kind) == GIF_ERROR ||
            load_record(reading, kind) == GIF_ERROR) {
            return GIF_ERROR;
        }
        if (kind == TERMINATE_RECORD_TYPE) {
            return reading->found.frames > 0 ? GIF_OK : GIF_ERROR;
        }
    }
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
        control.delay = delay < min_delay ? default_delay : delay;
    }
    return control;
}

int load_gif(GifFileType* gif, uint64_t kept_frames, gif_contents* found)
{
    gif_reading reading = {gif, kept_frames, {}, 0, 0};
    const int result = load_records(&reading);
    *found = reading.found;
    return result;
}
