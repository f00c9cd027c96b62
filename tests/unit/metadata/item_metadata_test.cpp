#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/metadata/item_metadata.h"
#include "tests/support/child_process.h"
#include "tests/unit/metadata/metadata_fixture.h"

namespace {

using item_owner = std::unique_ptr<platform::open_item, void (*)(platform::open_item*)>;

class ItemMetadata : public testing::Test {
protected:
    item_owner open(const std::string& file, const std::string& where)
    {
        item_owner item(nullptr, platform::close_media_item);
        messages =
            printed_by([&] { item.reset(platform::open_media_item(file.c_str(), where.c_str())); });
        return item;
    }

    temporary_folder folder;
    std::string picture = folder.write("picture.png", "bytes of a picture");
    std::string metadata_folder = folder.path("meta/of/it");
    std::string messages;
};

TEST_F(ItemMetadata, OpensThePictureAndMakesAPrivateFolder)
{
    const item_owner item = open(picture, metadata_folder);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(messages, "");
    EXPECT_GE(item->file_fd, 0);
    EXPECT_EQ(item->file_name, picture);
    EXPECT_EQ(item->metadata_path, metadata_folder + "/metadata");
    struct stat status = {};
    ASSERT_EQ(stat(metadata_folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
}

TEST_F(ItemMetadata, MissingPictureIsReportedAndNoFolderMade)
{
    EXPECT_EQ(open(folder.path("none"), metadata_folder), nullptr);
    EXPECT_EQ(messages,
              "Cannot open file '" + folder.path("none") + "': No such file or directory\n");
    EXPECT_FALSE(folder.has("meta"));
}

TEST_F(ItemMetadata, FolderThatCannotBeMadeIsReported)
{
    EXPECT_EQ(open(picture, picture + "/meta"), nullptr);
    EXPECT_EQ(messages, "Cannot make metadata folder '" + picture + "/meta': Not a directory\n");
}

TEST_F(ItemMetadata, FolderThatCannotBeOpenedIsReported)
{
    ASSERT_EQ(mkdir(folder.path("closed").c_str(), 0), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    EXPECT_EQ(run_without_privileges([&] {
                  EXPECT_EQ(open(picture, folder.path("closed")), nullptr);
                  EXPECT_EQ(messages, "Cannot open metadata folder '" + folder.path("closed") +
                                          "': Permission denied\n");
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(ItemMetadata, TooLongPathsAreReported)
{
    const std::string too_long = "/" + std::string(5000, 'x');
    EXPECT_EQ(open(too_long, metadata_folder), nullptr);
    EXPECT_EQ(messages, "Cannot open file '" + too_long + "': File name too long\n");
    EXPECT_EQ(open(picture, too_long), nullptr);
    EXPECT_EQ(messages, "Cannot make metadata folder '" + too_long + "': File name too long\n");
}

TEST_F(ItemMetadata, WrittenListCanBeLoaded)
{
    const item_owner item = open(picture, metadata_folder);
    const list_owner list(platform::load_item_metadata(*item));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(metadata_v4_metadata_context_add_name_value_pair(list.get(), "a", 0, "b", 0, 3), 0);
    EXPECT_EQ(
        metadata_v4_metadata_context_write_metadata_to_file(list.get(), item.get(), 0, nullptr), 0);
    const list_owner again(platform::load_item_metadata(*item));
    ASSERT_EQ(metadata_v4_metadata_context_entry_count(again.get()), 1U);
    EXPECT_EQ(metadata_v4_metadata_context_read_entry(again.get(), 0)->tag, 3);
}

TEST_F(ItemMetadata, ClosedOrMissingListIsNotWritten)
{
    const item_owner item = open(picture, metadata_folder);
    const list_owner list(platform::load_item_metadata(*item));
    const auto write = [&](metadata_v4_metadata_context* what, metadata_v4_context* where) {
        return metadata_v4_metadata_context_write_metadata_to_file(what, where, 0, nullptr);
    };
    EXPECT_NE(write(nullptr, item.get()), 0);
    EXPECT_NE(write(list.get(), nullptr), 0);
    metadata_v4_metadata_close_file(list.get());
    EXPECT_NE(write(list.get(), item.get()), 0);
    EXPECT_FALSE(folder.has("meta/of/it/metadata"));
}

TEST_F(ItemMetadata, UnknownFlagsAreRefused)
{
    const item_owner item = open(picture, metadata_folder);
    const list_owner list(platform::load_item_metadata(*item));
    int reserved = 0;
    EXPECT_NE(
        metadata_v4_metadata_context_write_metadata_to_file(list.get(), item.get(), 1, nullptr), 0);
    EXPECT_NE(
        metadata_v4_metadata_context_write_metadata_to_file(list.get(), item.get(), 0, &reserved),
        0);
}

TEST_F(ItemMetadata, RelativePathsStayValidWhenTheWorkingFolderChanges)
{
    EXPECT_EQ(run_in_child([&] {
                  EXPECT_EQ(chdir(folder.path().c_str()), 0);
                  const item_owner item = open("picture.png", "meta");
                  EXPECT_NE(item, nullptr) << messages;
                  EXPECT_EQ(chdir("/"), 0);
                  const list_owner list(platform::load_item_metadata(*item));
                  EXPECT_EQ(metadata_v4_metadata_context_write_metadata_to_file(
                                list.get(), item.get(), 0, nullptr),
                            0);
                  const int handle = metadata_v4_context_get_file_handle(item.get(), 0);
                  EXPECT_GE(handle, 0);
                  close(handle);
                  EXPECT_STREQ(item->file_name, "picture.png");
                  return HasFailure() ? 1 : 0;
              }),
              0);
    EXPECT_TRUE(folder.has("meta/metadata"));
}

TEST_F(ItemMetadata, HandleIsANewDescriptorOfTheOriginalFile)
{
    const item_owner item = open(picture, metadata_folder);
    folder.write("other", "something else");
    std::filesystem::rename(folder.path("other"), picture);
    ASSERT_EQ(lseek(item->file_fd, 5, SEEK_SET), 5);
    const unique_fd handle(metadata_v4_context_get_file_handle(item.get(), 0));
    ASSERT_TRUE(handle);
    std::string bytes(18, '\0');
    EXPECT_EQ(platform::read_fully(handle.get(), bytes.data(), bytes.size()), 18);
    EXPECT_EQ(bytes, "bytes of a picture");
}

TEST_F(ItemMetadata, HandleIsRefusedForNonRegularFiles)
{
    ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
    for (const std::string& other : {folder.path("fifo"), folder.path(), std::string("/dev/zero"),
                                     std::string("/proc/self/maps")}) {
        const item_owner item = open(other, metadata_folder);
        ASSERT_NE(item, nullptr) << other;
        EXPECT_LT(metadata_v4_context_get_file_handle(item.get(), 0), 0) << other;
    }
}

TEST_F(ItemMetadata, HandleIsRefusedWithoutAnOpenPicture)
{
    const item_owner item = open(picture, metadata_folder);
    EXPECT_LT(metadata_v4_context_get_file_handle(item.get(), 1), 0);
    EXPECT_LT(metadata_v4_context_get_file_handle(nullptr, 0), 0);
    item->file_fd = -1;
    EXPECT_LT(metadata_v4_context_get_file_handle(item.get(), 0), 0);
}

// The number of the next descriptor to be opened.
int next_descriptor()
{
    return unique_fd(platform::open_file("/dev/null", O_RDONLY)).get();
}

TEST_F(ItemMetadata, ClosingAcceptsNullAndLeaksNoDescriptor)
{
    platform::close_media_item(nullptr);
    const int before = next_descriptor();
    item_owner item = open(picture, metadata_folder);
    const list_owner list(platform::load_item_metadata(*item));
    metadata_v4_metadata_context_write_metadata_to_file(list.get(), item.get(), 0, nullptr);
    item.reset();
    EXPECT_EQ(next_descriptor(), before);
}

} // namespace
