#include <gtest/gtest.h>

#include "platform/standalone/cnb/small_file.h"
#include "tests/unit/cnb/cnb_fixture.h"

using platform::leading_number;
using platform::number_of_line;
using platform::read_small_file;

TEST(SmallFile, WholeTextIsRead)
{
    const temporary_folder folder;
    for (const size_t size : {0U, 1U, 4095U, 4096U, 4097U, 100'000U}) {
        const std::string text(size, 'x');
        cnb_test::write_file(folder.path("text"), text);
        EXPECT_EQ(read_small_file(folder.path("text")), text);
    }
}

TEST(SmallFile, ReadingEndsAtOneMebibyte)
{
    const temporary_folder folder;
    cnb_test::write_file(folder.path("text"), std::string(3'000'000, 'x'));
    EXPECT_EQ(read_small_file(folder.path("text")).size(), 1U << 20);
}

TEST(SmallFile, MissingFileAndFolderAreEmpty)
{
    const temporary_folder folder;
    EXPECT_EQ(read_small_file(folder.path("nothing")), "");
    EXPECT_EQ(read_small_file(folder.path()), "");
}

TEST(SmallFile, LeadingNumberIsParsed)
{
    EXPECT_EQ(leading_number("42 kB", 7), 42U);
    EXPECT_EQ(leading_number("18446744073709551615\n", 7), UINT64_MAX);
    EXPECT_EQ(leading_number("18446744073709551616", 7), 7U);
    EXPECT_EQ(leading_number("max\n", 7), 7U);
    EXPECT_EQ(leading_number("-1", 7), 7U);
    EXPECT_EQ(leading_number("", 7), 7U);
}

TEST(SmallFile, LineIsFoundByItsWholeKey)
{
    const char* text =
        "Mem: 1\nMemTotal:       24684084 kB\nMemTotal: 5\ninactive_file 12\nlast\t9";
    EXPECT_EQ(number_of_line(text, "MemTotal:", 7), 24684084U);
    EXPECT_EQ(number_of_line(text, "inactive_file", 7), 12U);
    EXPECT_EQ(number_of_line(text, "last", 7), 9U);
    EXPECT_EQ(number_of_line(text, "inactive", 7), 7U);
    EXPECT_EQ(number_of_line(text, "file", 7), 7U);
    EXPECT_EQ(number_of_line("key", "key", 7), 7U);
    EXPECT_EQ(number_of_line("key \n", "key", 7), 7U);
    EXPECT_EQ(number_of_line("", "key", 7), 7U);
}
