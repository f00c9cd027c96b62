#include <gtest/gtest.h>

#include "client/tool/rate.h"

namespace {

TEST(Rate, FrameRatesHaveThreeNotations)
{
    const std::pair<const char*, rate> texts[] = {
        {"25", {25, 1}},      {"29.97", {2997, 100}}, {"30000/1001", {30000, 1001}},
        {"24.0", {24, 1}},    {"0.5", {1, 2}},        {"50/2", {25, 1}},
        {"1000", {1000, 1}},  {"0.01", {1, 100}},     {"1/100", {1, 100}},
        {"007.250", {29, 4}}, {"12.345", {2469, 200}}};
    for (const auto& [text, expected] : texts) {
        rate result;
        EXPECT_TRUE(parse_frame_rate(text, &result)) << text;
        EXPECT_EQ(result, expected) << text;
    }
}

TEST(Rate, OtherTextsAreRefused)
{
    for (const char* text : {"",
                             "0",
                             "-1",
                             "+25",
                             " 25",
                             "25 ",
                             "25fps",
                             "25.",
                             ".5",
                             "25/",
                             "/1",
                             "25/0",
                             "0/25",
                             "1/2/3",
                             "1.5/2",
                             "1e2",
                             "1001",
                             "1/101",
                             "0.009",
                             "1000.001",
                             "9999999999",
                             "18446744073709551617",
                             "1000003/1000033",
                             "25.00000000001"}) {
        rate result = {7, 3};
        EXPECT_FALSE(parse_frame_rate(text, &result)) << text;
        EXPECT_EQ(result, (rate{7, 3})) << text;
    }
}

TEST(Rate, TermsAreReducedAndBounded)
{
    rate result;
    EXPECT_TRUE(make_rate(UINT64_C(1) << 62, UINT64_C(1) << 60, &result));
    EXPECT_EQ(result, (rate{4, 1}));
    EXPECT_TRUE(make_rate(1'000'000, 999'999, &result));
    EXPECT_FALSE(make_rate(1'000'001, 1, &result));
    EXPECT_FALSE(make_rate(1, 1'000'001, &result));
    EXPECT_FALSE(make_rate(0, 1, &result));
    EXPECT_FALSE(make_rate(1, 0, &result));
    EXPECT_EQ(result, (rate{1'000'000, 999'999}));
}

} // namespace
