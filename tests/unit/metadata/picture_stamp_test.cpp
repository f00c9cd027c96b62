#include <climits>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/metadata/picture_stamp.h"
#include "tests/unit/metadata/metadata_fixture.h"

namespace {

using platform::metadata_is_stale;
using platform::picture_stamp;
using platform::set_picture_stamp;

std::string time_of(time_t seconds, long nanoseconds)
{
    struct stat status = {};
    status.st_mtim = {seconds, nanoseconds};
    return platform::stamp_of(status).time;
}

constexpr const char* some_time = "2024-05-31T23:59:59.123456789Z";

TEST(PictureStamp, TimeIsADateInUtc)
{
    EXPECT_EQ(time_of(0, 0), "1970-01-01T00:00:00.000000000Z");
    EXPECT_EQ(time_of(1717199999, 123456789), some_time);
    EXPECT_EQ(time_of(-1, 999999999), "1969-12-31T23:59:59.999999999Z");
}

TEST(PictureStamp, TimeBeyondTheCalendarIsInSeconds)
{
    EXPECT_EQ(time_of(LONG_MAX, 5), "9223372036854775807.000000005 s");
}

TEST(PictureStamp, IsReadFromTheOpenFile)
{
    const temporary_folder folder;
    const std::string path = folder.write("p", "12345");
    const timespec times[2] = {{1717199999, 123456789}, {1717199999, 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    const unique_fd fd(platform::open_file(path.c_str(), O_RDONLY));
    picture_stamp stamp;
    ASSERT_TRUE(platform::read_picture_stamp(fd.get(), &stamp));
    EXPECT_EQ(stamp.size, "5");
    EXPECT_EQ(stamp.time, some_time);
    EXPECT_FALSE(platform::read_picture_stamp(-1, &stamp));
}

TEST(PictureStamp, ListWithoutAStampIsNotStale)
{
    EXPECT_FALSE(metadata_is_stale(list_from("file type = image/png\n").get(),
                                   {.size = "5", .time = some_time}));
    EXPECT_FALSE(metadata_is_stale(nullptr, {.size = "5", .time = some_time}));
}

TEST(PictureStamp, WrittenStampIsNotStaleAndAnyDifferenceIs)
{
    const list_owner list = list_from("");
    const picture_stamp stamp = {.size = "5", .time = some_time};
    EXPECT_EQ(set_picture_stamp(list.get(), stamp), 1);
    EXPECT_EQ(set_picture_stamp(list.get(), stamp), 0);
    EXPECT_EQ(platform::metadata_list_text(*list),
              std::string("picture size = 5\npicture time = ") + some_time + "\n");
    EXPECT_FALSE(metadata_is_stale(list.get(), stamp));
    EXPECT_TRUE(metadata_is_stale(list.get(), {.size = "6", .time = some_time}));
    EXPECT_TRUE(
        metadata_is_stale(list.get(), {.size = "5", .time = "2024-05-31T23:59:59.123456788Z"}));
}

TEST(PictureStamp, OnlyFactsOfThePictureAreDropped)
{
    const list_owner list = list_from("# of the picture\nfile type = image/gif\nGUID = g\n"
                                      "image size = 1 x 2\n[3] image size = 3 x 4\n"
                                      "aspect ratio = 16:9\nbackground music = on\n"
                                      "time scale = 100/1\ntime duration = 7\nvideo streams = 1\n"
                                      "image size = 5 x 6\ntitle = t\n"
                                      "picture size = 5\npicture time = t\n");
    platform::drop_stale_facts(list.get());
    EXPECT_EQ(platform::metadata_list_text(*list),
              "# of the picture\nGUID = g\n[3] image size = 3 x 4\naspect ratio = 16:9\n"
              "background music = on\ntitle = t\n");
    metadata_v4_metadata_close_file(list.get());
    platform::drop_stale_facts(list.get());
    platform::drop_stale_facts(nullptr);
}

TEST(PictureStamp, NewStampReplacesTheOldOne)
{
    const list_owner list = list_from("picture size = 5\nother = 1\n");
    EXPECT_EQ(set_picture_stamp(list.get(), {.size = "6", .time = "t"}), 1);
    EXPECT_EQ(platform::metadata_list_text(*list),
              "picture size = 6\nother = 1\npicture time = t\n");
}

TEST(PictureStamp, ClosedListGetsNone)
{
    const list_owner list = list_from("");
    metadata_v4_metadata_close_file(list.get());
    EXPECT_EQ(set_picture_stamp(list.get(), {.size = "5", .time = some_time}), -1);
}

} // namespace
