#include "client/tool/sheet_layout.h"

#include <algorithm>

#include "client/tool/sheet_font.h"

namespace {

constexpr uint32_t margin = 32;
constexpr uint32_t card_gap = 40;
constexpr uint32_t cell_gap = 12;
constexpr uint32_t caption_gap = 6; // between a picture and its caption
constexpr uint32_t line_gap = 8;
constexpr uint32_t max_row_width = 1600; // unless a single card is wider
constexpr uint32_t small_picture = 128;
constexpr uint32_t min_level_size = 48; // of the larger side, unless the level itself is smaller

// Fewer cards leave more room for each.
struct box_rule {
    size_t cards;
    sheet_extent box;
};
constexpr box_rule box_rules[] = {
    {1, {800, 600}}, {4, {480, 360}}, {12, {320, 240}}, {max_cards, {240, 180}}};

sheet_extent box_for(size_t cards)
{
    const auto* rule = std::find_if(std::begin(box_rules), std::end(box_rules) - 1,
                                    [cards](const box_rule& one) { return cards <= one.cards; });
    return rule->box;
}

uint32_t larger_side(sheet_extent size)
{
    return std::max(size.width, size.height);
}

uint32_t scaled(uint32_t size, uint32_t shown, uint32_t full)
{
    return std::max<uint32_t>(static_cast<uint32_t>((uint64_t{size} * shown + full / 2) / full), 1);
}

sheet_extent scaled(sheet_extent size, uint32_t shown, uint32_t full)
{
    return {scaled(size.width, shown, full), scaled(size.height, shown, full)};
}

// Reduced by the same factor as the full picture, so that the levels keep their proportions, but
// not below min_level_size.
sheet_extent level_extent(sheet_extent level, sheet_extent full, sheet_extent full_shown)
{
    const sheet_extent shown = scaled(level, larger_side(full_shown), larger_side(full));
    const uint32_t min_side = std::min(larger_side(level), min_level_size);
    return larger_side(shown) >= min_side ? shown : scaled(level, min_side, larger_side(level));
}

// --- a card -------------------------------------------------------------------------------------

class card {
public:
    explicit card(const sheet_content& content) : content_(content)
    {
        place_full_picture();
        if (content.pictures.size() > 1) {
            place_levels();
        }
    }

    sheet_extent size;
    std::vector<sheet_cell> cells;

private:
    uint32_t caption_width(size_t picture) const
    {
        return text_extent(content_.captions[picture], caption_scale).width;
    }

    uint32_t caption_height(size_t picture) const
    {
        return text_extent(content_.captions[picture], caption_scale).height;
    }

    void place_full_picture()
    {
        const sheet_extent shown = fit_picture(content_.pictures[0], box_for(content_.cards));
        cells.push_back({{0, 0}, shown, {0, shown.height + caption_gap}});
        size.width = std::max(shown.width, caption_width(0));
        size.height = shown.height + caption_gap + caption_height(0);
    }

    void place_levels()
    {
        column_ = size.width + cell_gap;
        uint32_t column_width = 0;
        for (size_t i = 1; i < content_.pictures.size(); ++i) {
            shown_.push_back(
                level_extent(content_.pictures[i], content_.pictures[0], cells[0].shown));
            // From the third level on there is room for a caption beside the level, to save height.
            const uint32_t beside = i > 2 ? min_level_size + cell_gap : 0;
            column_width = std::max({column_width, shown_.back().width, beside + caption_width(i)});
        }
        uint32_t y = 0;
        for (size_t i = 1; i < content_.pictures.size(); ++i) {
            y = place_level(i, y, column_width) + cell_gap;
        }
        size.width = column_ + column_width;
        size.height = std::max(size.height, y - cell_gap);
    }

    // Puts the caption beside the level if there is room, else below it. Returns the lower end of
    // both.
    uint32_t place_level(size_t picture, uint32_t y, uint32_t column_width)
    {
        const sheet_extent shown = shown_[picture - 1];
        const uint32_t beside = shown.width + cell_gap;
        if (beside + caption_width(picture) > column_width) {
            const uint32_t below = y + shown.height + caption_gap;
            cells.push_back({{column_, y}, shown, {column_, below}});
            return below + caption_height(picture);
        }
        const uint32_t height = std::max(shown.height, caption_height(picture));
        const uint32_t middle = y + (height - caption_height(picture)) / 2;
        cells.push_back(
            {{column_, y + (height - shown.height) / 2}, shown, {column_ + beside, middle}});
        return y + height;
    }

    const sheet_content& content_;
    std::vector<sheet_extent> shown_;
    uint32_t column_ = 0;
};

// --- the sheet ----------------------------------------------------------------------------------

uint32_t scale_of_line(size_t line)
{
    return line == 0 ? title_scale : caption_scale;
}

// Positions the head's lines and widens the sheet to hold them. Returns the top of the cards.
uint32_t place_head(const std::vector<std::string>& lines, sheet_layout& layout)
{
    uint32_t y = margin;
    for (size_t i = 0; i < lines.size(); ++i) {
        const sheet_extent line = text_extent(lines[i], scale_of_line(i));
        layout.head.push_back({margin, y});
        layout.size.width = std::max(layout.size.width, 2 * margin + line.width);
        y += line.height + line_gap;
    }
    return y + margin - line_gap;
}

// As many as fit; fewer if the rows become more even without a further row.
uint32_t cards_in_a_row(uint32_t cards, uint32_t card_width)
{
    const uint32_t room = max_row_width - 2 * margin + card_gap;
    const uint32_t fitting = std::clamp<uint32_t>(room / (card_width + card_gap), 1, cards);
    const uint32_t rows = (cards + fitting - 1) / fitting;
    return (cards + rows - 1) / rows;
}

} // namespace

size_t max_levels_on(size_t cards)
{
    return cards <= 4 ? 16 : 5;
}

sheet_extent fit_picture(sheet_extent picture, sheet_extent box)
{
    const uint32_t room = std::min(box.width / picture.width, box.height / picture.height);
    if (room >= 1) {
        const uint32_t side = larger_side(picture);
        const uint32_t wanted = (small_picture + side - 1) / side;
        const uint32_t factor = std::min(room, wanted);
        return {picture.width * factor, picture.height * factor};
    }
    const bool wide = uint64_t{picture.width} * box.height >= uint64_t{picture.height} * box.width;
    return wide ? scaled(picture, box.width, picture.width)
                : scaled(picture, box.height, picture.height);
}

sheet_layout lay_out_sheet(const sheet_content& content)
{
    sheet_layout layout;
    const uint32_t top = place_head(content.head, layout);
    card one(content);
    const auto cards = static_cast<uint32_t>(content.cards);
    const uint32_t columns = cards_in_a_row(cards, one.size.width);
    for (uint32_t i = 0; i < cards; ++i) {
        layout.cards.push_back({margin + i % columns * (one.size.width + card_gap),
                                top + i / columns * (one.size.height + card_gap)});
    }
    layout.size.width =
        std::max(layout.size.width, 2 * margin + columns * (one.size.width + card_gap) - card_gap);
    layout.size.height = layout.cards.back().y + one.size.height + margin;
    layout.cells = std::move(one.cells);
    return layout;
}
