// First the frames are chosen, by asking the worker which one is shown at a moment. Then the levels
// are found, by asking for half the size until the pictures become no smaller. Last, each picture
// is requested, drawn and released.
#include "client/tool/calls.h"
#include "client/tool/output.h"
#include "client/tool/picture_files.h"
#include "client/tool/play_timeline.h"
#include "client/tool/session.h"
#include "client/tool/sheet_canvas.h"
#include "client/tool/sheet_frames.h"
#include "client/tool/sheet_layout.h"
#include "client/tool/sheet_text.h"

namespace {

constexpr size_t max_title = 60; // characters

constexpr grey background = 0x2B;
constexpr grey frame_shade = 0x5A;
constexpr grey title_shade = 0xF0;
constexpr grey text_shade = 0xB4;

sheet_extent extent_of(const stillimage_picture& picture)
{
    return {picture.width, picture.height};
}

bool smaller(sheet_extent one, sheet_extent other)
{
    return one.width < other.width || one.height < other.height;
}

// The size that a client requests to get the level.
sheet_extent halved(sheet_extent full, size_t times)
{
    const uint32_t rest = (1U << times) - 1;
    return {(full.width + rest) >> times, (full.height + rest) >> times};
}

class sheet_maker {
public:
    sheet_maker(const session& worker, const call_options& options)
        : worker_(worker), options_(options)
    {
    }

    exit_status make(std::string* file)
    {
        const bool done =
            take_full_picture() && read_document() && choose_frames() && find_levels();
        if (!done) {
            return status_;
        }
        write_texts();
        const sheet_layout layout = lay_out_sheet(content_);
        sheet_canvas canvas(layout.size, background);
        for (size_t i = 0; i < content_.head.size(); ++i) {
            canvas.draw_text(layout.head[i], i == 0 ? title_scale : caption_scale, content_.head[i],
                             i == 0 ? title_shade : text_shade);
        }
        for (size_t i = 0; i < frames_.shown.size(); ++i) {
            if (!draw_card(canvas, layout, i)) {
                return status_;
            }
        }
        *file = png_file(canvas.pixels());
        return STATUS_DONE;
    }

private:
    // 0 x 0 is the full size.
    bool take(uint64_t moment, sheet_extent wanted, held_frame* frame)
    {
        options_.time_position = moment;
        options_.wanted_width = static_cast<int32_t>(wanted.width);
        options_.wanted_height = static_cast<int32_t>(wanted.height);
        status_ = worker_.take_frame(options_, frame);
        return status_ == STATUS_DONE;
    }

    bool take_full_picture()
    {
        if (!take(0, {}, &first_)) {
            return false;
        }
        facts_.picture = picture_of(first_);
        content_.pictures = {extent_of(facts_.picture)};
        return true;
    }

    bool read_document()
    {
        std::string document;
        status_ = worker_.take_status(&document);
        if (status_ != STATUS_DONE) {
            return false;
        }
        facts_.time = timeline_of(document);
        content_.head = {drawable(picture_name(document, options_.socket_or_picture), max_title)};
        return true;
    }

    bool choose_frames()
    {
        exit_status first_status = STATUS_DONE;
        frames_ = frames_for_sheet(facts_.time.duration, max_cards, [&](uint64_t moment) {
            held_frame frame;
            if (first_status == STATUS_DONE && !take(moment, {1, 1}, &frame)) {
                first_status = status_;
            }
            return frame == nullptr ? 0 : picture_of(frame).frame_number;
        });
        if (frames_.shown.empty()) {
            frames_.shown.push_back({facts_.picture.frame_number, 0});
        }
        status_ = first_status;
        return status_ == STATUS_DONE;
    }

    bool find_levels()
    {
        const sheet_extent full = content_.pictures[0];
        for (size_t i = 1; i <= max_levels_on(1); ++i) {
            held_frame level;
            if (!take(0, halved(full, i), &level)) {
                return false;
            }
            const sheet_extent size = extent_of(picture_of(level));
            if (!smaller(size, content_.pictures.back())) {
                break;
            }
            content_.pictures.push_back(size);
        }
        return true;
    }

    void write_texts()
    {
        facts_.levels = content_.pictures.size() - 1;
        facts_.frames = frames_.total;
        content_.cards = frames_.shown.size();
        content_.head.push_back(facts_line(facts_));
        if (frames_.total > frames_.shown.size()) {
            content_.head.push_back("showing " + std::to_string(frames_.shown.size()) +
                                    " of the frames, at even distances");
        }
        const size_t max_levels = max_levels_on(content_.cards);
        if (facts_.levels > max_levels) {
            content_.pictures.resize(1 + max_levels);
            content_.head.push_back("showing levels up to L" + std::to_string(max_levels));
        }
        const sheet_frame& last = frames_.shown.back();
        content_.captions = {frame_caption(facts_, last.number, last.start)};
        for (size_t i = 1; i < content_.pictures.size(); ++i) {
            const sheet_extent size = content_.pictures[i];
            content_.captions.push_back(level_caption(i, size.width, size.height));
        }
    }

    bool draw_card(sheet_canvas& canvas, const sheet_layout& layout, size_t card)
    {
        const sheet_frame& frame = frames_.shown[card];
        const sheet_point corner = layout.cards[card];
        for (size_t i = 0; i < layout.cells.size(); ++i) {
            const sheet_cell& cell = layout.cells[i];
            const sheet_point at = {corner.x + cell.picture.x, corner.y + cell.picture.y};
            held_frame held;
            if (!take(frame.start, i == 0 ? sheet_extent{} : content_.pictures[i], &held)) {
                return false;
            }
            canvas.draw_frame(at, cell.shown, frame_shade);
            canvas.draw_picture(at, cell.shown, picture_of(held));
            canvas.draw_text({corner.x + cell.caption.x, corner.y + cell.caption.y}, caption_scale,
                             i == 0 ? frame_caption(facts_, frame.number, frame.start)
                                    : content_.captions[i],
                             text_shade);
        }
        return true;
    }

    const session& worker_;
    call_options options_;
    exit_status status_ = STATUS_DONE;
    held_frame first_; // facts_.picture points to its planes
    sheet_facts facts_;
    sheet_frames frames_;
    sheet_content content_;
};

} // namespace

exit_status call_sheet(const call_options& options)
{
    if (options.output != "-" && !ends_in(options.output, ".png")) {
        print_error("a contact sheet is a PNG, not " + options.output +
                    " (name it .png, or - for standard output)");
        return STATUS_USAGE;
    }
    session worker;
    exit_status status = worker.open(options);
    std::string file;
    if (status == STATUS_DONE) {
        status = sheet_maker(worker, options).make(&file);
    }
    if (status != STATUS_DONE) {
        return status;
    }
    if (file.empty()) {
        print_error("cannot write " + options.output + ": not enough memory");
        return STATUS_FAILED;
    }
    return write_result(options.output, file) ? STATUS_DONE : STATUS_FAILED;
}
