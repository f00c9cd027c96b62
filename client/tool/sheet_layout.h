// The layout of a contact sheet. Plain arithmetic.
//
// A sheet has a head of text and below it a card for each frame, in rows. A card shows the full
// picture with its caption below; to the right of it, one under the other, its reduced levels.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "client/tool/sheet_canvas.h"

inline constexpr size_t max_cards = 24;
inline constexpr uint32_t caption_scale = 2; // of text
inline constexpr uint32_t title_scale = 3;

struct sheet_cell {
    sheet_point picture; // relative to the card's corner
    sheet_extent shown;  // size in which the picture is drawn
    sheet_point caption; // relative to the card's corner
    bool operator==(const sheet_cell&) const = default;
};

struct sheet_layout {
    sheet_extent size;
    std::vector<sheet_point> head; // a position for each line of text, the first is the title
    std::vector<sheet_point> cards;
    std::vector<sheet_cell> cells; // of every card: the full picture, then its levels
};

struct sheet_content {
    std::vector<std::string> head;      // the title, then further lines
    std::vector<sheet_extent> pictures; // the full picture, then its levels
    std::vector<std::string> captions;  // the longest that any card has, for each picture
    size_t cards = 1;                   // at most max_cards
};

// The highest number of levels on a card of a sheet with so many cards.
size_t max_levels_on(size_t cards);

// The sheet is no larger than 2,500 x 5,000 pixels for pictures of any size, within max_cards,
// max_levels_on() and head lines of up to 60 characters.
sheet_layout lay_out_sheet(const sheet_content& content);

// The size in which a picture is drawn in a box: reduced if it is larger than the box, enlarged by
// a whole number if it is tiny. Both sides are at least 1.
sheet_extent fit_picture(sheet_extent picture, sheet_extent box);
