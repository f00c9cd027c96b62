#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "platform/settings.h"
#include "platform/standalone/item/values.h"

namespace {

constexpr uint64_t max = UINT64_MAX;

uint64_t size_of_text(const char* text)
{
    uint64_t bytes = 0;
    return platform::parse_size(text, &bytes) ? bytes : 0;
}

TEST(ParseSize, DigitsAreBytesAndSuffixesPowersOf1024)
{
    EXPECT_EQ(size_of_text("1"), 1U);
    EXPECT_EQ(size_of_text("4096"), 4096U);
    EXPECT_EQ(size_of_text("3K"), 3U << 10);
    EXPECT_EQ(size_of_text("512M"), uint64_t{512} << 20);
    EXPECT_EQ(size_of_text("4G"), uint64_t{4} << 30);
    EXPECT_EQ(size_of_text("2T"), uint64_t{2} << 40);
    EXPECT_EQ(size_of_text("4g"), uint64_t{4} << 30);
}

TEST(ParseSize, TooLargeSizeIsTheMaximum)
{
    EXPECT_EQ(size_of_text("18446744073709551615"), max);
    EXPECT_EQ(size_of_text("18446744073709551616"), max);
    EXPECT_EQ(size_of_text("99999999999999999999999999999"), max);
    EXPECT_EQ(size_of_text("16777216T"), max);
    EXPECT_EQ(size_of_text("16777215T"), uint64_t{16777215} << 40);
}

TEST(ParseSize, OtherTextIsNoSize)
{
    for (const char* text : {"", "0", "0M", "M", "-1", "+1", " 1", "1 ", "1.5G", "12Q", "1MB",
                             "1KK", "0x10", "1+", "1\x0B"}) {
        uint64_t bytes = 77;
        EXPECT_FALSE(platform::parse_size(text, &bytes)) << text;
        EXPECT_EQ(bytes, 77U) << text;
    }
}

TEST(ParseSeconds, FractionsBecomeMicroseconds)
{
    uint64_t us = 0;
    EXPECT_TRUE(platform::parse_seconds("0", &us));
    EXPECT_EQ(us, 0U);
    EXPECT_TRUE(platform::parse_seconds("60", &us));
    EXPECT_EQ(us, 60'000'000U);
    EXPECT_TRUE(platform::parse_seconds("0.25", &us));
    EXPECT_EQ(us, 250'000U);
    EXPECT_TRUE(platform::parse_seconds("1.0000019", &us));
    EXPECT_EQ(us, 1'000'001U);
}

TEST(ParseSeconds, TooLargeTimeIsTheMaximum)
{
    uint64_t us = 0;
    EXPECT_TRUE(platform::parse_seconds("18446744073709", &us));
    EXPECT_EQ(us, 18446744073709000000U);
    EXPECT_TRUE(platform::parse_seconds("18446744073710", &us));
    EXPECT_EQ(us, max);
    EXPECT_TRUE(platform::parse_seconds("18446744073709.999999", &us));
    EXPECT_EQ(us, max);
    EXPECT_TRUE(platform::parse_seconds("1000000000000000000000000", &us));
    EXPECT_EQ(us, max);
}

TEST(ParseSeconds, OtherTextIsNoTime)
{
    for (const char* text :
         {"", "-1", "+1", ".5", "5.", "1.x", "1e3", "nan", "inf", "1s", " 1", "1 ", "1..2"}) {
        uint64_t us = 77;
        EXPECT_FALSE(platform::parse_seconds(text, &us)) << text;
        EXPECT_EQ(us, 77U) << text;
    }
}

TEST(ParseDescriptor, AcceptsWholeNumbersThatFitAnInt)
{
    int number = -1;
    EXPECT_TRUE(platform::parse_descriptor("0", &number));
    EXPECT_EQ(number, 0);
    EXPECT_TRUE(platform::parse_descriptor("2147483647", &number));
    EXPECT_EQ(number, INT32_MAX);
    for (const char* text : {"", "-1", "3x", "2147483648", "18446744073709551619", " 3"}) {
        EXPECT_FALSE(platform::parse_descriptor(text, &number)) << text;
    }
}

TEST(ParseInteger, AcceptsSignsAndSaturates)
{
    int64_t number = 0;
    EXPECT_TRUE(platform::parse_integer("-5", &number));
    EXPECT_EQ(number, -5);
    EXPECT_TRUE(platform::parse_integer("99999999999999999999", &number));
    EXPECT_EQ(number, INT64_MAX);
    EXPECT_FALSE(platform::parse_integer("5 ", &number));
    EXPECT_FALSE(platform::parse_integer("-", &number));
    EXPECT_FALSE(platform::parse_integer("", &number));
}

// "N:D", or "" when the text is no ratio.
std::string ratio_of(const char* text)
{
    int_rational ratio = {-7, -7};
    if (vexa_parse_int_rational(&ratio, text) != 0) {
        EXPECT_EQ(ratio.numerator, -7) << text;
        EXPECT_EQ(ratio.denominator, -7) << text;
        return "";
    }
    return std::to_string(ratio.numerator) + ":" + std::to_string(ratio.denominator);
}

TEST(ParseIntRational, ColonSlashOrOneNumber)
{
    EXPECT_EQ(ratio_of("16:9"), "16:9");
    EXPECT_EQ(ratio_of("4/3"), "4:3");
    EXPECT_EQ(ratio_of("2"), "2:1");
    EXPECT_EQ(ratio_of("0/0"), "0:0");
    EXPECT_EQ(ratio_of("-4:+3"), "-4:3");
    EXPECT_EQ(ratio_of(" 16 : 9\t"), "16:9");
}

TEST(ParseIntRational, LongNumbersSaturate)
{
    const std::string digits(100'000, '9');
    EXPECT_EQ(ratio_of((digits + ":-" + digits).c_str()),
              "9223372036854775807:-9223372036854775808");
    EXPECT_EQ(ratio_of("-9223372036854775808"), "-9223372036854775808:1");
    EXPECT_EQ(ratio_of("9223372036854775808:1"), "9223372036854775807:1");
}

TEST(ParseIntRational, OtherTextChangesNothing)
{
    EXPECT_EQ(ratio_of(nullptr), "");
    for (const char* text : {"", " ", ":", "16:", ":9", "16:9:1", "16x9", "1.5", "a", "16:b", "--1",
                             "- 1", "1e3", "16::9", "16 9", "0x10", "\xFF", "16:9\n"}) {
        EXPECT_EQ(ratio_of(text), "") << text;
    }
}

TEST(ParseAspectRatio, OnlyPositiveOrUnknownIsAccepted)
{
    int_rational ratio = {};
    EXPECT_TRUE(platform::parse_aspect_ratio("16:9", &ratio));
    EXPECT_EQ(ratio.numerator, 16);
    EXPECT_TRUE(platform::parse_aspect_ratio("0:0", &ratio));
    EXPECT_EQ(ratio.numerator, 0);
    for (const char* text : {"0:1", "1:0", "-1:1", "1:-1", "-1:-1", "x"}) {
        EXPECT_FALSE(platform::parse_aspect_ratio(text, &ratio)) << text;
    }
}

TEST(ParsePositiveRatio, ZeroIsRefusedOnEitherSide)
{
    int_rational ratio = {};
    EXPECT_TRUE(platform::parse_positive_ratio("100/1", &ratio));
    EXPECT_EQ(ratio.numerator, 100);
    for (const char* text : {"0:0", "0/1", "1/0", "-1/1", "x"}) {
        EXPECT_FALSE(platform::parse_positive_ratio(text, &ratio)) << text;
    }
}

TEST(ParseBackgroundMusic, WordsAreAcceptedInAnyCase)
{
    vexa_background_music = 0;
    for (const char* text : {"on", "ON", "yes", "True", "1"}) {
        EXPECT_EQ(vexa_parse_background_music(text), 1) << text;
    }
    vexa_background_music = 1;
    for (const char* text : {"off", "Off", "no", "FALSE", "0"}) {
        EXPECT_EQ(vexa_parse_background_music(text), 0) << text;
    }
}

TEST(ParseBackgroundMusic, OtherTextKeepsThePresentSetting)
{
    for (const int present : {0, 1}) {
        vexa_background_music = present;
        for (const char* text : {"", "onn", " on", "2", "\xFF"}) {
            EXPECT_EQ(vexa_parse_background_music(text), present) << text;
        }
        EXPECT_EQ(vexa_parse_background_music(nullptr), present);
    }
    vexa_background_music = 0;
}

} // namespace
