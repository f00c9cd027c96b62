#include "tests/support/gif_reference.h"

#include <algorithm>

namespace gif_reference {

namespace {

// Reads the file from front to back. Past the end every byte is 0 and `ended` is set.
struct reader {
    const file_bytes& file;
    size_t at = 0;
    bool ended = false;

    unsigned byte()
    {
        if (at >= file.size()) {
            ended = true;
            return 0;
        }
        return file[at++];
    }

    unsigned two()
    {
        const unsigned low = byte();
        return low | byte() << 8;
    }

    std::vector<colour> palette(unsigned flags)
    {
        std::vector<colour> colours;
        if ((flags & 0x80) != 0) {
            colours.resize(2U << (flags & 7));
            for (colour& c : colours) {
                c.r = static_cast<unsigned char>(byte());
                c.g = static_cast<unsigned char>(byte());
                c.b = static_cast<unsigned char>(byte());
                c.a = 255;
            }
        }
        return colours;
    }

    std::vector<unsigned char> block()
    {
        std::vector<unsigned char> data(byte());
        for (unsigned char& value : data) {
            value = static_cast<unsigned char>(byte());
        }
        return data;
    }
};

// The bits of an image's data blocks, lowest first.
struct bit_reader {
    reader& in;
    std::vector<unsigned char> block = {};
    size_t bit = 0;
    bool over = false; // the terminator was read

    unsigned code(unsigned bits)
    {
        unsigned value = 0;
        for (unsigned i = 0; i < bits; ++i) {
            if (bit == block.size() * 8) {
                block = in.block();
                bit = 0;
                over = over || block.empty() || in.ended;
            }
            if (over) {
                return 0;
            }
            value |= (block[bit / 8] >> bit % 8 & 1U) << i;
            ++bit;
        }
        return value;
    }

    void skip_rest()
    {
        while (!over && !in.ended) {
            over = in.block().empty();
        }
    }
};

// False when the data ends early; `out` then holds fewer than the `wanted` indices.
bool read_indices(reader& in, unsigned first_bits, size_t wanted, std::vector<unsigned char>& out)
{
    const unsigned clear = 1U << first_bits;
    std::vector<std::vector<unsigned char>> table;
    bit_reader data{in};
    unsigned bits = 0;
    std::vector<unsigned char> previous;
    const auto start_table = [&] {
        table.assign(clear + 2, {});
        for (unsigned i = 0; i < clear; ++i) {
            table[i] = {static_cast<unsigned char>(i)};
        }
        bits = first_bits + 1;
        previous.clear();
    };
    start_table();
    while (out.size() < wanted) {
        const unsigned code = data.code(bits);
        if (data.over || code == clear + 1) {
            return false;
        }
        if (code == clear) {
            start_table();
            continue;
        }
        std::vector<unsigned char> string;
        if (code < table.size()) {
            string = table[code];
        } else if (code == table.size() && !previous.empty()) {
            string = previous;
            string.push_back(previous.front());
        } else {
            return false;
        }
        if (!previous.empty() && table.size() < 4096) {
            table.push_back(previous);
            table.back().push_back(string.front());
            if (table.size() == (1U << bits) && bits < 12) {
                ++bits;
            }
        }
        previous = string;
        out.insert(out.end(), string.begin(), string.end());
    }
    out.resize(wanted);
    data.skip_rest();
    return !in.ended;
}

struct control {
    unsigned disposal = 0;
    unsigned delay = 10;
    std::optional<unsigned char> transparent;
};

void read_extension(reader& in, control& pending)
{
    const unsigned code = in.byte();
    bool first = true;
    for (auto data = in.block(); !data.empty(); data = in.block()) {
        if (first && code == 0xF9 && data.size() >= 4) {
            const unsigned delay = data[1] + 256U * data[2];
            pending.disposal = data[0] / 4 % 8;
            pending.delay = delay <= 1 ? 10 : delay;
            if (data[0] % 2 == 1) {
                pending.transparent = data[3];
            }
        }
        first = false;
    }
}

// False when reading ends here.
bool read_frame(reader& in, control& pending, std::vector<frame>& frames)
{
    frame f;
    f.left = in.two();
    f.top = in.two();
    f.width = in.two();
    f.height = in.two();
    const unsigned flags = in.byte();
    f.interlaced = (flags & 0x40) != 0;
    f.palette = in.palette(flags);
    const unsigned bits = in.byte();
    if (in.ended || bits > 8) {
        return false;
    }
    const bool readable = f.width != 0 && f.height != 0;
    bool whole = false;
    if (readable) {
        f.has_raster = true;
        whole = read_indices(in, bits, size_t{f.width} * f.height, f.indices);
        f.indices.resize(size_t{f.width} * f.height, 0);
    }
    if (whole) { // a broken frame does not use the pending extension
        f.disposal = pending.disposal;
        f.delay = pending.delay;
        f.transparent = pending.transparent;
        pending = {};
    }
    frames.push_back(f);
    return whole;
}

// Four passes: every 8th row from 0, every 8th from 4, every 4th from 2, every 2nd from 1.
std::vector<unsigned> interlaced_rows(unsigned height)
{
    std::vector<unsigned> rows;
    for (const auto& [first, step] : {std::pair{0U, 8U}, {4U, 8U}, {2U, 4U}, {1U, 2U}}) {
        for (unsigned row = first; row < height; row += step) {
            rows.push_back(row);
        }
    }
    return rows;
}

struct painter {
    const animation& what;
    std::vector<colour> canvas;
    bool transparent_seen = false;
    unsigned char last_transparent = 0;

    colour& at(unsigned x, unsigned y) { return canvas[size_t{y} * what.width + x]; }

    void draw(const frame& f, bool first)
    {
        const auto& palette = f.palette.empty() ? what.palette : f.palette;
        if (palette.empty()) {
            return;
        }
        if (f.transparent) {
            transparent_seen = true;
            last_transparent = *f.transparent;
        }
        if (first && !what.palette.empty() && !f.transparent && what.background < palette.size()) {
            std::fill(canvas.begin(), canvas.end(), palette[what.background]);
        }
        const std::vector<unsigned> interlaced = interlaced_rows(f.height);
        for (unsigned row = 0; f.has_raster && row < f.height; ++row) {
            const unsigned y = f.top + (f.interlaced ? interlaced[row] : row);
            for (unsigned column = 0; column < f.width; ++column) {
                const unsigned x = f.left + column;
                if (x < what.width && y < what.height) {
                    draw_pixel(f, palette, f.indices[size_t{row} * f.width + column], at(x, y));
                }
            }
        }
    }

    void draw_pixel(const frame& f, const std::vector<colour>& palette, unsigned char index,
                    colour& pixel) const
    {
        if (f.transparent && index == *f.transparent) {
            return;
        }
        if (!f.transparent && transparent_seen && index == last_transparent) {
            pixel = {0, 0, 0, 0};
        } else {
            pixel = palette[index < palette.size() ? index : 0];
        }
    }

    void restore_background(const frame& f)
    {
        const auto& palette = f.palette.empty() ? what.palette : f.palette;
        for (unsigned y = f.top; !palette.empty() && y < f.top + f.height; ++y) {
            for (unsigned x = f.left; x < f.left + f.width; ++x) {
                if (x < what.width && y < what.height) {
                    at(x, y) = f.transparent                      ? colour{0, 0, 0, 0}
                               : what.background < palette.size() ? palette[what.background]
                                                                  : palette[0];
                }
            }
        }
    }
};

} // namespace

animation read(const file_bytes& file)
{
    reader in{file};
    in.at = 6; // signature and version
    animation what;
    what.width = in.two();
    what.height = in.two();
    const unsigned flags = in.byte();
    what.background = in.byte();
    in.byte(); // aspect
    what.palette = in.palette(flags);
    control pending;
    while (!in.ended) {
        const unsigned kind = in.byte();
        if (kind == 0x21) {
            read_extension(in, pending);
        } else if (kind != 0x2C || !read_frame(in, pending, what.frames)) {
            what.whole = kind == 0x3B;
            break;
        }
    }
    return what;
}

std::vector<std::vector<colour>> compose(const animation& what)
{
    std::vector<std::vector<colour>> shown;
    painter p{what, std::vector<colour>(size_t{what.width} * what.height)};
    for (const frame& f : what.frames) {
        const std::vector<colour> before = p.canvas;
        p.draw(f, shown.empty());
        shown.push_back(p.canvas);
        if (f.disposal == 2) {
            p.restore_background(f);
        } else if (f.disposal == 3) {
            p.canvas = before;
        }
    }
    return shown;
}

std::map<uint64_t, uint64_t> timeline(const animation& what, size_t frames)
{
    std::map<uint64_t, uint64_t> points;
    uint64_t time = 0;
    for (size_t i = 0; i < what.frames.size() && i < frames; ++i) {
        points[time] = i;
        time += what.frames[i].delay;
    }
    return points;
}

uint64_t running_time(const animation& what)
{
    uint64_t time = 0;
    for (const frame& f : what.frames) {
        time += f.delay;
    }
    return time;
}

} // namespace gif_reference
