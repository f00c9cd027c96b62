// Positions of the parts of a contact sheet, and the letters of its labels.
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/tool/sheet_font.h"
#include "client/tool/sheet_layout.h"

namespace {

using rows_of_glyph = glyph_rows;

struct box {
    uint32_t left, top, right, bottom;
};

box box_at(sheet_point corner, sheet_point at, sheet_extent size)
{
    return {corner.x + at.x, corner.y + at.y, corner.x + at.x + size.width,
            corner.y + at.y + size.height};
}

bool overlap(const box& one, const box& other)
{
    return one.left < other.right && other.left < one.right && one.top < other.bottom &&
           other.top < one.bottom;
}

// The boxes of everything that is drawn.
std::vector<box> boxes_of(const sheet_content& content, const sheet_layout& layout)
{
    std::vector<box> boxes;
    for (size_t i = 0; i < layout.head.size(); ++i) {
        boxes.push_back(box_at({}, layout.head[i],
                               text_extent(content.head[i], i == 0 ? title_scale : caption_scale)));
    }
    for (const sheet_point& corner : layout.cards) {
        for (size_t i = 0; i < layout.cells.size(); ++i) {
            const sheet_cell& cell = layout.cells[i];
            boxes.push_back(box_at(corner, cell.picture, cell.shown));
            boxes.push_back(
                box_at(corner, cell.caption, text_extent(content.captions[i], caption_scale)));
        }
    }
    return boxes;
}

void expect_all_apart_and_inside(const std::vector<box>& boxes, sheet_extent size)
{
    for (size_t i = 0; i < boxes.size(); ++i) {
        ASSERT_LT(boxes[i].left, boxes[i].right);
        ASSERT_LT(boxes[i].top, boxes[i].bottom);
        ASSERT_LE(boxes[i].right + 32, size.width);
        ASSERT_LE(boxes[i].bottom + 32, size.height);
        for (size_t j = 0; j < i; ++j) {
            ASSERT_FALSE(overlap(boxes[i], boxes[j])) << i << " and " << j;
        }
    }
}

sheet_content content_for(sheet_extent full, size_t levels, size_t cards)
{
    sheet_content content;
    content.head = {std::string(60, 'M'), "facts", "note"};
    content.cards = cards;
    for (size_t i = 0; i <= levels; ++i) {
        const sheet_extent size = {std::max(full.width >> i, 1U), std::max(full.height >> i, 1U)};
        const std::string text = std::to_string(size.width) + " x " + std::to_string(size.height);
        content.pictures.push_back(size);
        content.captions.push_back(i != 0      ? "L" + std::to_string(i) + " " + text
                                   : cards > 1 ? "#1234  1234.56 s\n" + text
                                               : text);
    }
    return content;
}

TEST(SheetLayout, StillPictureWithTwoLevels)
{
    sheet_content content;
    content.head = {"title", "facts"};
    content.pictures = {{160, 120}, {80, 60}, {40, 30}};
    content.captions = {"160 x 120", "L1 80 x 60", "L2 40 x 30"};
    const sheet_layout layout = lay_out_sheet(content);
    EXPECT_EQ(layout.head, (std::vector<sheet_point>{{32, 32}, {32, 64}}));
    EXPECT_EQ(layout.cards, (std::vector<sheet_point>{{32, 112}}));
    ASSERT_EQ(layout.cells.size(), 3U);
    EXPECT_EQ(layout.cells[0], (sheet_cell{{0, 0}, {160, 120}, {0, 126}}));
    EXPECT_EQ(layout.cells[1], (sheet_cell{{172, 0}, {80, 60}, {172, 66}}));
    EXPECT_EQ(layout.cells[2], (sheet_cell{{172, 94}, {40, 30}, {172, 130}}));
    EXPECT_EQ(layout.size, (sheet_extent{32 + 172 + 118 + 32, 112 + 146 + 32}));
}

TEST(SheetLayout, CaptionStandsBesideALevelIfItFits)
{
    sheet_content content = content_for({800, 600}, 2, 1);
    const sheet_layout layout = lay_out_sheet(content);
    EXPECT_EQ(layout.cells[1].caption.x, layout.cells[1].picture.x);
    EXPECT_EQ(layout.cells[2].caption.x, layout.cells[2].picture.x + 200 + 12);
    EXPECT_EQ(layout.cells[2].caption.y, layout.cells[2].picture.y + (150 - 16) / 2);
}

TEST(SheetLayout, CardsStandInRowsOfEqualLength)
{
    const sheet_layout layout = lay_out_sheet(content_for({160, 120}, 0, 8));
    ASSERT_EQ(layout.cards.size(), 8U);
    EXPECT_EQ(layout.cards[3].y, layout.cards[0].y);
    EXPECT_GT(layout.cards[4].y, layout.cards[0].y);
    EXPECT_EQ(layout.cards[4].x, layout.cards[0].x);
    EXPECT_EQ(layout.cards[7].x, layout.cards[3].x);
}

TEST(SheetLayout, MoreFramesAreDrawnSmaller)
{
    const uint32_t widths[] = {800, 480, 480, 320, 320, 240, 240};
    const size_t cards[] = {1, 2, 4, 5, 12, 13, 24};
    for (size_t i = 0; i < std::size(cards); ++i) {
        EXPECT_EQ(lay_out_sheet(content_for({4000, 3000}, 0, cards[i])).cells[0].shown.width,
                  widths[i]);
    }
}

TEST(SheetLayout, AnyPictureGivesABoundedSheetWithoutOverlaps)
{
    std::mt19937 random(11);
    for (int round = 0; round < 400; ++round) {
        const auto side = [&random] {
            return std::max(static_cast<uint32_t>((random() & 0xFFFFFF) >> random() % 25), 1U);
        };
        const sheet_extent full = {side(), side()};
        const size_t cards = 1 + random() % max_cards;
        const sheet_content content =
            content_for(full, random() % (max_levels_on(cards) + 1), cards);
        const sheet_layout layout = lay_out_sheet(content);
        ASSERT_LE(layout.size.width, 2500U);
        ASSERT_LE(layout.size.height, 5000U);
        ASSERT_EQ(layout.cards.size(), content.cards);
        ASSERT_NO_FATAL_FAILURE(expect_all_apart_and_inside(boxes_of(content, layout), layout.size))
            << full.width << " x " << full.height << ", " << content.pictures.size() - 1
            << " levels, " << content.cards << " cards";
    }
}

TEST(SheetLayout, MaximumLevelsWithAnyNumberOfFramesStayInBounds)
{
    for (size_t cards = 1; cards <= max_cards; ++cards) {
        for (const sheet_extent full : {sheet_extent{16777216, 16777216},
                                        {16777216, 12582912},
                                        {12582912, 16777216},
                                        {16777216, 1},
                                        {1, 16777216}}) {
            const sheet_content content = content_for(full, max_levels_on(cards), cards);
            const sheet_layout layout = lay_out_sheet(content);
            EXPECT_LE(layout.size.width, 2500U);
            EXPECT_LE(layout.size.height, 5000U) << cards;
            ASSERT_NO_FATAL_FAILURE(
                expect_all_apart_and_inside(boxes_of(content, layout), layout.size));
        }
    }
}

TEST(SheetFit, LargePicturesAreReducedToTheBox)
{
    EXPECT_EQ(fit_picture({1600, 1200}, {800, 600}), (sheet_extent{800, 600}));
    EXPECT_EQ(fit_picture({1600, 400}, {800, 600}), (sheet_extent{800, 200}));
    EXPECT_EQ(fit_picture({400, 1800}, {800, 600}), (sheet_extent{133, 600}));
    EXPECT_EQ(fit_picture({16777216, 1}, {800, 600}), (sheet_extent{800, 1}));
    EXPECT_EQ(fit_picture({1, 16777216}, {800, 600}), (sheet_extent{1, 600}));
}

TEST(SheetFit, PicturesThatFitKeepTheirSize)
{
    EXPECT_EQ(fit_picture({800, 600}, {800, 600}), (sheet_extent{800, 600}));
    EXPECT_EQ(fit_picture({128, 5}, {800, 600}), (sheet_extent{128, 5}));
}

TEST(SheetFit, TinyPicturesAreEnlargedByAWholeNumber)
{
    EXPECT_EQ(fit_picture({1, 1}, {800, 600}), (sheet_extent{128, 128}));
    EXPECT_EQ(fit_picture({13, 1}, {800, 600}), (sheet_extent{130, 10}));
    EXPECT_EQ(fit_picture({127, 100}, {800, 600}), (sheet_extent{254, 200}));
    EXPECT_EQ(fit_picture({127, 100}, {240, 180}), (sheet_extent{127, 100}));
}

// --- letters ------------------------------------------------------------------------------------

TEST(SheetFont, PrintableCharactersAllLookDifferent)
{
    std::set<rows_of_glyph> seen;
    for (int c = 0x20; c <= 0x7E; ++c) {
        const rows_of_glyph& glyph = glyph_of(static_cast<char>(c));
        EXPECT_TRUE(seen.insert(glyph).second) << static_cast<char>(c);
        for (const uint8_t row : glyph) {
            EXPECT_LT(row, 1U << glyph_width);
        }
    }
    EXPECT_EQ(glyph_of(' '), rows_of_glyph());
}

TEST(SheetFont, OtherCharactersAreABox)
{
    const rows_of_glyph box = {0x1F, 0x11, 0x11, 0x11, 0x11, 0x11, 0x1F, 0x00};
    EXPECT_EQ(glyph_of('\n'), box);
    EXPECT_EQ(glyph_of('\x7F'), box);
    EXPECT_EQ(glyph_of('\xC3'), box);
    EXPECT_EQ(glyph_of('\xFF'), box);
}

TEST(SheetFont, LetterHasItsShape)
{
    EXPECT_EQ(glyph_of('L'), (rows_of_glyph{0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F, 0x00}));
    EXPECT_EQ(glyph_of('7'), (rows_of_glyph{0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08, 0x00}));
    EXPECT_EQ(glyph_of('g'), (rows_of_glyph{0x00, 0x00, 0x0F, 0x11, 0x11, 0x0F, 0x01, 0x0E}));
}

TEST(SheetFont, TextIsMeasuredByItsLines)
{
    EXPECT_EQ(text_extent("", 2), (sheet_extent{0, 16}));
    EXPECT_EQ(text_extent("a", 1), (sheet_extent{5, 8}));
    EXPECT_EQ(text_extent("abc", 2), (sheet_extent{34, 16}));
    EXPECT_EQ(text_extent("ab\nabcd\na", 3), (sheet_extent{69, 84}));
}

TEST(SheetFont, MultibyteCharacterCountsOnce)
{
    EXPECT_EQ(drawable("a\xC3\xA4z", 60), "a\xC3z");
    EXPECT_EQ(drawable("\xE4\xB8\x96", 60).size(), 1U);
}

TEST(SheetFont, LongTextEndsWithAnEllipsis)
{
    EXPECT_EQ(drawable("abcdef", 6), "abcdef");
    EXPECT_EQ(drawable("abcdefg", 6), "abc...");
}

} // namespace
