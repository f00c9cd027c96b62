// Where everything is on a contact sheet. Plain arithmetic.
//
// A sheet has a head of text and below it a card for each frame, in rows. A card shows the full
// picture with its caption below; to the right of it, one under the other, its reduced levels.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "client/tool/sheet_canvas.h"

inline constexpr size_t most_cards = 24;
inline constexpr uint32_t caption_scale = 2; // of text
inline constexpr uint32_t title_scale = 3;

struct sheet_cell {
    sheet_point picture; // both from the card's corner
    sheet_extent shown;  // size in which the picture is drawn
    sheet_point caption;
    bool operator==(const sheet_cell&) const = default;
};

struct sheet_layout {
    sheet_extent size;
    std::vector<sheet_point> head; // a place for each line of text, the first is the title
    std::vector<sheet_point> cards;
    std::vector<sheet_cell> cells; // of every card: the full picture, then its levels
};

struct sheet_content {
    std::vector<std::string> head;      // the title, then further lines
    std::vector<sheet_extent> pictures; // the full picture, then its levels
    std::vector<std::string> captions;  // of the pictures; the longest that any card has
    size_t cards = 1;                   // at most most_cards
};

// Levels that a card shows at most, when there are so many cards.
size_t most_levels_on(size_t cards);

// No larger than 2,500 x 5,000 with these numbers of cards and levels and head lines of up to 60
// characters, whatever the size of the pictures is.
sheet_layout lay_out_sheet(const sheet_content& content);

// The size in which a picture is drawn in a box: reduced when it is larger; enlarged by a whole
// number when it could hardly be seen. Both at least 1.
sheet_extent fit_picture(sheet_extent picture, sheet_extent box);
