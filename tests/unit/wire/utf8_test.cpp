#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "wire/utf8.h"

namespace {

using wire::utf8_sequence_length;

// The definition in plain form: the bytes of a code point, by its number of bits.
std::string encoded(uint32_t number)
{
    std::string text;
    const auto add = [&](uint32_t byte) { text += static_cast<char>(byte); };
    if (number < 0x80) {
        add(number);
    } else if (number < 0x800) {
        add(0xC0 | number >> 6);
        add(0x80 | (number & 0x3F));
    } else if (number < 0x10000) {
        add(0xE0 | number >> 12);
        add(0x80 | (number >> 6 & 0x3F));
        add(0x80 | (number & 0x3F));
    } else {
        add(0xF0 | number >> 18);
        add(0x80 | (number >> 12 & 0x3F));
        add(0x80 | (number >> 6 & 0x3F));
        add(0x80 | (number & 0x3F));
    }
    return text;
}

TEST(Utf8, EveryCodePointIsOneSequence)
{
    for (uint32_t number = 0; number <= 0x10FFFF; ++number) {
        const std::string text = encoded(number);
        const bool surrogate = number >= 0xD800 && number <= 0xDFFF;
        ASSERT_EQ(utf8_sequence_length(text + "x"), surrogate ? 0 : text.size()) << number;
        ASSERT_EQ(wire::is_utf8(text), !surrogate) << number;
    }
}

TEST(Utf8, NumbersBeyondUnicodeAreInvalid)
{
    EXPECT_EQ(utf8_sequence_length(encoded(0x110000)), 0U);
    EXPECT_EQ(utf8_sequence_length(encoded(0x1FFFFF)), 0U);
    EXPECT_EQ(utf8_sequence_length("\xF8\x88\x80\x80\x80"), 0U);
    EXPECT_EQ(utf8_sequence_length("\xFF"), 0U);
}

TEST(Utf8, OverlongFormsAreInvalid)
{
    EXPECT_EQ(utf8_sequence_length("\xC0\x80"), 0U);
    EXPECT_EQ(utf8_sequence_length("\xC1\xBF"), 0U);
    EXPECT_EQ(utf8_sequence_length("\xE0\x9F\xBF"), 0U);
    EXPECT_EQ(utf8_sequence_length("\xF0\x8F\xBF\xBF"), 0U);
}

TEST(Utf8, TruncatedAndStrayBytesAreInvalid)
{
    EXPECT_EQ(utf8_sequence_length(""), 0U);
    EXPECT_EQ(utf8_sequence_length("\xC3"), 0U);
    EXPECT_EQ(utf8_sequence_length("\xE2\x82"), 0U);
    EXPECT_EQ(utf8_sequence_length("\xE2\x82z"), 0U);
    EXPECT_EQ(utf8_sequence_length("\xC3z"), 0U);
    EXPECT_EQ(utf8_sequence_length("\x80"), 0U);
}

TEST(Utf8, ReplacementKeepsTextAndMarksEachInvalidByte)
{
    EXPECT_EQ(wire::to_utf8("gr\xC3\xBC\xC3\n\xFF\xFE"),
              "gr\xC3\xBC\xEF\xBF\xBD\n\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(wire::to_utf8(""), "");
}

TEST(Utf8, ReplacementOfAnyBytesIsValid)
{
    uint32_t state = 1;
    for (int round = 0; round < 2000; ++round) {
        std::string bytes;
        for (int i = 0; i < 40; ++i) {
            state = state * 1664525 + 1013904223;
            bytes += static_cast<char>(state >> 24);
        }
        EXPECT_TRUE(wire::is_utf8(wire::to_utf8(bytes)));
        EXPECT_TRUE(wire::is_utf8(wire::printable(bytes)));
    }
}

TEST(Utf8, TruncatedTextEndsWithAWholeCharacter)
{
    const std::string text = "a\xC3\xBC\xE2\x82\xAC\xF0\x9F\x8E\xA8z";
    for (size_t size = 0; size <= text.size() + 1; ++size) {
        const std::string_view cut = wire::truncate_utf8(text, size);
        EXPECT_TRUE(wire::is_utf8(cut)) << size;
        EXPECT_LE(cut.size(), size);
        EXPECT_GT(cut.size() + 4, std::min(size, text.size())) << size;
        EXPECT_TRUE(text.starts_with(cut));
    }
    EXPECT_EQ(wire::truncate_utf8(text, text.size()), text);
    // These bytes start no character.
    EXPECT_EQ(wire::truncate_utf8("\x80\x80\x80\x80\x80", 4).size(), 1U);
}

TEST(Utf8, ControlsAreTheCharactersThatAffectATerminal)
{
    for (uint32_t number = 0; number < 0x3000; ++number) {
        const bool control = number < 0x20 || (number >= 0x7F && number <= 0x9F) ||
                             (number >= 0x2028 && number <= 0x202E) ||
                             (number >= 0x2066 && number <= 0x2069);
        ASSERT_EQ(wire::is_control(encoded(number)), control) << number;
    }
}

TEST(Utf8, PrintableEscapesControlsInvalidBytesAndTheBackslash)
{
    EXPECT_EQ(wire::printable("a\\b\n\x1B\x7F\xFFz"), "a\\\\b\\x0A\\x1B\\x7F\\xFFz");
    EXPECT_EQ(wire::printable("\xC2\x9B[0m"), "\\xC2\\x9B[0m");
    EXPECT_EQ(wire::printable("gr\xC3\xBC\xC3\x9F"), "gr\xC3\xBC\xC3\x9F");
}

TEST(Utf8, EscapedControlsLeavePrintableTextAsItIs)
{
    for (uint32_t number = 1; number <= 0x10FFFF; ++number) {
        const std::string text = encoded(number);
        if (wire::is_utf8(text)) {
            ASSERT_EQ(wire::escape_controls(text) == text, !wire::is_control(text)) << number;
        }
    }
    EXPECT_EQ(wire::escape_controls("a\\b\n\x1B\x7F\xFFz\xC2\x9B\xC3"),
              "a\\b\\x0A\\x1B\\x7F\\xFFz\\xC2\\x9B\\xC3");
    const std::string once = wire::escape_controls("a\x1B\\");
    EXPECT_EQ(wire::escape_controls(once), once);
}

} // namespace
