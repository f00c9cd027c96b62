// The inflater receives the compressed data in blocks of at most 8 KiB of one chunk, as the library
// reads it: in a truncated file the rows of an incomplete block are lost. A chunk's checksum is
// verified when the data after it is needed.
#include "tests/support/png_samples.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <zlib.h>

namespace {

using bytes = std::vector<unsigned char>;

constexpr size_t max_block = 8192;

uint32_t word_at(const bytes& file, size_t position)
{
    return uint32_t{file[position]} << 24 | uint32_t{file[position + 1]} << 16 |
           uint32_t{file[position + 2]} << 8 | file[position + 3];
}

bool named(const bytes& file, size_t chunk, const char* name)
{
    return memcmp(file.data() + chunk + 4, name, 4) == 0;
}

// The image data, block by block.
class image_data {
public:
    image_data(const bytes& file, size_t first_chunk) : file_(file) { enter(first_chunk); }

    // False when there is no more, or a chunk is damaged.
    bool next_block(z_stream* stream)
    {
        while (left_ == 0) {
            const size_t next = position_ + 4;
            if (!checksum_is_right() || next + 8 > file_.size() || !named(file_, next, "IDAT")) {
                return false;
            }
            enter(next);
        }
        const size_t size = std::min(left_, max_block);
        if (position_ + size > file_.size()) {
            return false;
        }
        stream->next_in = const_cast<Bytef*>(file_.data() + position_);
        stream->avail_in = static_cast<uInt>(size);
        position_ += size;
        left_ -= size;
        return true;
    }

    // Of the current chunk, including its unread rest.
    bool checksum_is_right() const
    {
        const size_t end = position_ + left_;
        if (end + 4 > file_.size()) {
            return false;
        }
        const uLong sum = crc32(0, file_.data() + start_, static_cast<uInt>(end - start_));
        return sum == word_at(file_, end);
    }

private:
    void enter(size_t chunk)
    {
        left_ = word_at(file_, chunk);
        start_ = chunk + 4;
        position_ = chunk + 8;
    }

    const bytes& file_;
    size_t start_ = 0; // of the bytes that the checksum covers
    size_t position_ = 0;
    size_t left_ = 0; // bytes of this chunk after position_
};

class inflater {
public:
    inflater(const bytes& file, size_t first_chunk) : data_(file, first_chunk)
    {
        if (inflateInit2(&stream_, 0) != Z_OK) { // 0: the window size in the stream's header
            abort();
        }
    }
    inflater(const inflater&) = delete;
    inflater& operator=(const inflater&) = delete;
    ~inflater() { inflateEnd(&stream_); }

    bool fill(bytes* row)
    {
        stream_.next_out = row->data();
        stream_.avail_out = static_cast<uInt>(row->size());
        while (stream_.avail_out > 0) {
            if (ended_ || (stream_.avail_in == 0 && !data_.next_block(&stream_))) {
                return false;
            }
            const int result = inflate(&stream_, Z_NO_FLUSH);
            ended_ = result == Z_STREAM_END;
            if (result != Z_OK && !ended_) {
                return false;
            }
        }
        return true;
    }

    // After the last row the library reads up to the end of the stream, ignores damaged data there,
    // and verifies the checksum of the chunk.
    bool finish()
    {
        bytes surplus(1024);
        bool produced = true;
        while (!ended_ && produced) {
            if (stream_.avail_in == 0 && !data_.next_block(&stream_)) {
                return false;
            }
            stream_.next_out = surplus.data();
            stream_.avail_out = static_cast<uInt>(surplus.size());
            const int result = inflate(&stream_, Z_NO_FLUSH);
            ended_ = result == Z_STREAM_END;
            produced = result == Z_OK && stream_.avail_out < surplus.size();
        }
        return data_.checksum_is_right();
    }

private:
    z_stream stream_ = {};
    image_data data_;
    bool ended_ = false;
};

unsigned paeth(int left, int above, int corner)
{
    const int estimate = left + above - corner;
    const int to_left = abs(estimate - left);
    const int to_above = abs(estimate - above);
    const int to_corner = abs(estimate - corner);
    if (to_left <= to_above && to_left <= to_corner) {
        return static_cast<unsigned>(left);
    }
    return static_cast<unsigned>(to_above <= to_corner ? above : corner);
}

// `row` begins with its filter byte, as does the row above it. False for an unknown filter.
bool undo_filter(bytes* row, const bytes& above_row, size_t pixel_bytes)
{
    const unsigned filter = row->front();
    for (size_t i = 1; i < row->size(); ++i) {
        const unsigned left = i > pixel_bytes ? (*row)[i - pixel_bytes] : 0U;
        const unsigned above = above_row[i];
        const unsigned corner = i > pixel_bytes ? above_row[i - pixel_bytes] : 0U;
        const unsigned predictions[] = {
            0, left, above, (left + above) / 2,
            paeth(static_cast<int>(left), static_cast<int>(above), static_cast<int>(corner))};
        if (filter >= std::size(predictions)) {
            return false;
        }
        (*row)[i] = static_cast<unsigned char>((*row)[i] + predictions[filter]);
    }
    return true;
}

bytes samples_of(const bytes& row, unsigned depth, size_t count)
{
    bytes samples(count);
    for (size_t i = 0; i < count; ++i) {
        if (depth == 16) {
            const unsigned sample = row[1 + 2 * i] * 256U + row[2 + 2 * i];
            samples[i] = static_cast<unsigned char>((sample + 128) / 257); // nearest
        } else {
            const size_t bit = i * depth;
            const unsigned shift = static_cast<unsigned>(8 - depth - bit % 8);
            samples[i] =
                static_cast<unsigned char>(row[1 + bit / 8] >> shift & ((1U << depth) - 1));
        }
    }
    return samples;
}

bool read_pass(inflater* data, const png_samples& picture, png_pass_samples* pass)
{
    const size_t pixel_bits = size_t{picture.depth} * picture.channels;
    const size_t row_bytes = (pass->columns * pixel_bits + 7) / 8;
    bytes above(row_bytes + 1);
    bytes row(row_bytes + 1);
    for (uint32_t i = 0; pass->columns != 0 && i < pass->rows; ++i) {
        if (!data->fill(&row) || !undo_filter(&row, above, std::max<size_t>(pixel_bits / 8, 1))) {
            return false;
        }
        pass->delivered.push_back(
            samples_of(row, picture.depth, size_t{pass->columns} * picture.channels));
        above = row;
    }
    return true;
}

uint32_t steps(uint32_t size, uint32_t first, uint32_t step)
{
    return size > first ? (size - first + step - 1) / step : 0;
}

std::vector<png_pass_samples> plan_passes(const png_samples& picture)
{
    if (picture.interlace == 0) {
        return {{0, 1, 0, 1, picture.height, picture.width, {}}};
    }
    static constexpr uint32_t adam7[7][4] = {{0, 8, 0, 8}, {0, 8, 4, 8}, {4, 8, 0, 4}, {0, 4, 2, 4},
                                             {2, 4, 0, 2}, {0, 2, 1, 2}, {1, 2, 0, 1}};
    std::vector<png_pass_samples> passes;
    for (const auto& [row, row_step, column, column_step] : adam7) {
        passes.push_back({row,
                          row_step,
                          column,
                          column_step,
                          steps(picture.height, row, row_step),
                          steps(picture.width, column, column_step),
                          {}});
    }
    return passes;
}

png_samples read_header(const bytes& file)
{
    static constexpr unsigned channels[] = {1, 0, 3, 1, 2, 0, 4};
    if (file.size() < 33 || file[25] >= std::size(channels)) {
        abort();
    }
    png_samples picture = {};
    picture.width = word_at(file, 16);
    picture.height = word_at(file, 20);
    picture.depth = file[24];
    picture.colour_type = file[25];
    picture.interlace = file[28];
    picture.channels = channels[file[25]];
    picture.passes = plan_passes(picture);
    return picture;
}

void read_palette(const bytes& file, size_t chunk, png_samples* picture)
{
    const size_t max_count = picture->colour_type == 3 ? size_t{1} << picture->depth : 256;
    const size_t count = std::min<size_t>(word_at(file, chunk) / 3, max_count);
    for (size_t i = 0; i < count; ++i) {
        const unsigned char* entry = file.data() + chunk + 8 + 3 * i;
        picture->palette.push_back({entry[0], entry[1], entry[2]});
    }
}

} // namespace

png_samples read_png_samples(const bytes& file)
{
    png_samples picture = read_header(file);
    size_t chunk = 8;
    while (chunk + 8 <= file.size() && !named(file, chunk, "IDAT")) {
        if (named(file, chunk, "PLTE") && picture.palette.empty()) {
            read_palette(file, chunk, &picture);
        }
        chunk += size_t{12} + word_at(file, chunk);
    }
    if (chunk + 8 > file.size()) {
        return picture;
    }
    inflater data(file, chunk);
    for (png_pass_samples& pass : picture.passes) {
        if (!read_pass(&data, picture, &pass)) {
            return picture;
        }
    }
    picture.complete = data.finish();
    return picture;
}
