#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/file_lock.h"
#include "platform/standalone/metadata/metadata_file.h"
#include "tests/support/child_process.h"
#include "tests/support/failing_files.h"
#include "tests/unit/metadata/metadata_fixture.h"

namespace {

using failing_files::fate;
using platform::load_metadata;
using platform::store_metadata;
using strings = std::vector<std::string>;

class MetadataFile : public testing::Test {
protected:
    MetadataFile() { failing_files::arm(0, fate::FAIL); }

    list_owner load() { return list_owner(load_metadata(store)); }

    // Loads the list and stores what is printed in `messages`.
    list_owner load_capturing()
    {
        list_owner list;
        messages = printed_by([&] { list = load(); });
        return list;
    }

    int store_capturing(const list_owner& list)
    {
        int result = 0;
        messages = printed_by([&] { result = store_metadata(store, list.get()); });
        return result;
    }

    int update_capturing(std::string_view name, std::string_view value)
    {
        int result = 0;
        messages = printed_by([&] {
            result = update_stored_metadata(store, {{std::string(name), std::string(value)}});
        });
        return result;
    }

    temporary_folder folder;
    platform::metadata_store store = store_in(folder);
    std::string messages;
};

TEST_F(MetadataFile, MissingFileGivesANewList)
{
    const list_owner list = load_capturing();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->entries, 0U);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(folder.names(), strings{});
}

TEST_F(MetadataFile, StoredListCanBeLoaded)
{
    const list_owner list = load();
    platform::set_item_entry(list.get(), "a", "1\n2");
    ASSERT_EQ(store_metadata(store, list.get()), 0);
    EXPECT_STREQ(platform::find_item_entry(load().get(), "a")->value, "1\n2");
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("metadata").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(MetadataFile, UnknownEntriesCommentsAndOrderArePreserved)
{
    constexpr const char* text =
        "# mine\nzebra = 1\n\n[4] colour = red\nfile type = image/png\n#end\n";
    folder.write("metadata", text);
    const list_owner list = load();
    ASSERT_EQ(store_metadata(store, list.get()), 0);
    EXPECT_EQ(folder.read("metadata"), text);
}

TEST_F(MetadataFile, ListMayBeStoredAgain)
{
    const list_owner list = load();
    ASSERT_EQ(store_metadata(store, list.get()), 0);
    platform::set_item_entry(list.get(), "a", "1");
    ASSERT_EQ(store_capturing(list), 0);
    EXPECT_EQ(messages, "");
    EXPECT_NE(folder.read("metadata").find("a = 1\n"), std::string::npos);
}

TEST_F(MetadataFile, DamagedFileIsReportedAndSetAsideAndANewOneIsWritten)
{
    folder.write("metadata", "a = 1\nnonsense\n");
    const list_owner list = load_capturing();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(messages,
              "Damaged metadata file 'META': line 2: neither an entry (name = value) nor a "
              "comment\n"
              "Metadata file set aside 'META': now named metadata.damaged-1\n");
    EXPECT_EQ(list->entries, 0U) << "part of a damaged file must not be used";
    EXPECT_EQ(folder.read("metadata.damaged-1"), "a = 1\nnonsense\n");
    EXPECT_FALSE(folder.has("metadata"));
    EXPECT_EQ(store_metadata(store, list.get()), 0);
    EXPECT_TRUE(folder.has("metadata"));
}

TEST_F(MetadataFile, FilesSetAsideDoNotOverwriteEachOther)
{
    for (const char* text : {"one", "two", "three"}) {
        folder.write("metadata", text);
        load_capturing();
    }
    EXPECT_EQ(folder.read("metadata.damaged-1"), "one");
    EXPECT_EQ(folder.read("metadata.damaged-2"), "two");
    EXPECT_EQ(folder.read("metadata.damaged-3"), "three");
}

TEST_F(MetadataFile, TooManyFilesSetAsideLeaveTheDamagedFileUnchanged)
{
    for (int number = 1; number <= platform::max_set_aside; ++number) {
        folder.write("metadata.damaged-" + std::to_string(number), "");
    }
    folder.write("metadata", "nonsense");
    const list_owner list = load_capturing();
    EXPECT_NE(
        messages.find("Cannot set aside metadata file 'META': too many were set aside before\n"),
        std::string::npos);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(store_capturing(list), -1);
    EXPECT_EQ(messages,
              "Cannot write metadata file 'META': the damaged file is still in its place\n");
    EXPECT_EQ(folder.read("metadata"), "nonsense");
}

TEST_F(MetadataFile, FailingSetAsideLeavesTheDamagedFileUnchanged)
{
    folder.write("metadata", "nonsense");
    store.operations = &failing_files::operations;
    failing_files::arm(1, fate::FAIL, EROFS);
    const list_owner list = load_capturing();
    EXPECT_NE(messages.find("Cannot set aside metadata file 'META': Read-only file system\n"),
              std::string::npos);
    failing_files::arm(0, fate::FAIL);
    EXPECT_EQ(store_capturing(list), -1);
    EXPECT_EQ(folder.read("metadata"), "nonsense");
}

TEST_F(MetadataFile, DamagedFileIsNotSetAsideWhileAnotherProcessHoldsTheLock)
{
    folder.write("metadata", "nonsense");
    platform::file_lock other;
    ASSERT_EQ(other.take(folder.fd(), "metadata.lock", 0), platform::lock_result::TAKEN);
    const list_owner list = load_capturing();
    EXPECT_NE(
        messages.find("Cannot set aside metadata file 'META': another process holds its lock\n"),
        std::string::npos);
    other.release();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(store_capturing(list), -1);
    EXPECT_EQ(folder.read("metadata"), "nonsense");
}

TEST_F(MetadataFile, HugeFileIsRefusedWithoutReading)
{
    folder.write("metadata", "");
    ASSERT_EQ(truncate(folder.path("metadata").c_str(), 1 << 30), 0);
    const list_owner list = load_capturing();
    EXPECT_EQ(messages, "Damaged metadata file 'META': the file is too large\n"
                        "Metadata file set aside 'META': now named metadata.damaged-1\n");
    ASSERT_NE(list, nullptr);
}

// Memory for the contents is not available: requesting it would end the child.
TEST_F(MetadataFile, HugeFileCostsNoMemory)
{
    folder.write("metadata", "");
    ASSERT_EQ(truncate(folder.path("metadata").c_str(), INT64_C(1) << 40), 0);
    EXPECT_EQ(run_in_child([&] {
                  return load_capturing() != nullptr && folder.has("metadata.damaged-1") ? 0 : 1;
              }),
              0);
}

TEST_F(MetadataFile, LargestFileIsLoaded)
{
    folder.write("metadata", "a = 1\n" + std::string(platform::max_metadata_file - 6, '\n'));
    const list_owner list = load_capturing();
    EXPECT_EQ(messages, "");
    EXPECT_EQ(list->entries, 1U);
}

TEST_F(MetadataFile, NonRegularFileIsSetAside)
{
    folder.write("target", "a = 1\n");
    ASSERT_EQ(symlink("target", folder.path("metadata").c_str()), 0);
    load_capturing();
    ASSERT_EQ(mkfifo(folder.path("metadata").c_str(), 0600), 0);
    load_capturing();
    ASSERT_EQ(mkdir(folder.path("metadata").c_str(), 0700), 0);
    load_capturing();
    const unique_fd socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, folder.path("metadata").c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(socket_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    load_capturing();
    EXPECT_EQ(messages, "Damaged metadata file 'META': not a regular file\n"
                        "Metadata file set aside 'META': now named metadata.damaged-4\n");
    EXPECT_EQ(folder.names(),
              (strings{"metadata.damaged-1", "metadata.damaged-2", "metadata.damaged-3",
                       "metadata.damaged-4", "metadata.lock", "target"}));
    EXPECT_EQ(folder.read("target"), "a = 1\n");
}

TEST_F(MetadataFile, UnreadableFileIsSetAside)
{
    folder.write("metadata", "a = 1\n");
    ASSERT_EQ(chmod(folder.path("metadata").c_str(), 0), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
    EXPECT_EQ(run_without_privileges([&] {
                  const list_owner list = load_capturing();
                  EXPECT_EQ(messages,
                            "Damaged metadata file 'META': Permission denied\n"
                            "Metadata file set aside 'META': now named metadata.damaged-1\n");
                  return list != nullptr && list->entries == 0 && !HasFailure() ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(folder.has("metadata.damaged-1"));
}

TEST_F(MetadataFile, LackOfDescriptorsIsNoDamage)
{
    folder.write("metadata", "a = 1\n");
    EXPECT_EQ(run_in_child([&] {
                  testing::internal::CaptureStderr();
                  const rlimit none = {0, 0};
                  setrlimit(RLIMIT_NOFILE, &none);
                  return load_metadata(store) == nullptr ? 0 : 1;
              }),
              0);
    EXPECT_EQ(folder.names(), strings{"metadata"});
}

TEST_F(MetadataFile, ListIsNotWrittenOverAChangeByAnotherProcess)
{
    folder.write("metadata", "a = 1\n");
    const list_owner list = load();
    const list_owner second = load();
    platform::set_item_entry(list.get(), "a", "first");
    platform::set_item_entry(second.get(), "a", "second");
    ASSERT_EQ(store_metadata(store, list.get()), 0);
    EXPECT_EQ(store_capturing(second), -1);
    EXPECT_EQ(messages,
              "Cannot write metadata file 'META': another process has changed it meanwhile\n");
    EXPECT_EQ(folder.read("metadata"), "a = first\n");
}

TEST_F(MetadataFile, CreatedOrRemovedFileIsAChange)
{
    const list_owner from_nothing = load();
    folder.write("metadata", "a = 1\n");
    EXPECT_EQ(store_capturing(from_nothing), -1);
    const list_owner from_file = load();
    ASSERT_EQ(unlink(folder.path("metadata").c_str()), 0);
    EXPECT_EQ(store_capturing(from_file), -1);
    EXPECT_FALSE(folder.has("metadata"));
}

TEST_F(MetadataFile, HeldLockIsReportedAndNothingIsWritten)
{
    folder.write("metadata", "a = 1\n");
    const list_owner list = load();
    platform::file_lock other;
    ASSERT_EQ(other.take(folder.fd(), "metadata.lock", 0), platform::lock_result::TAKEN);
    EXPECT_EQ(store_capturing(list), -1);
    EXPECT_EQ(messages, "Cannot write metadata file 'META': another process holds its lock\n");
    EXPECT_EQ(update_capturing("a", "2"), -1);
    EXPECT_EQ(messages, "Cannot write metadata file 'META': another process holds its lock\n");
    EXPECT_EQ(folder.read("metadata"), "a = 1\n");
}

TEST_F(MetadataFile, StopEndsTheWaitForTheLock)
{
    const std::atomic<int> stop = 1;
    store.stop = &stop;
    store.lock_limit_us = UINT64_MAX;
    const list_owner list = load();
    platform::file_lock other;
    ASSERT_EQ(other.take(folder.fd(), "metadata.lock", 0), platform::lock_result::TAKEN);
    EXPECT_EQ(store_capturing(list), -1);
}

TEST_F(MetadataFile, LockThatCannotBeTakenIsReported)
{
    const list_owner list = load();
    ASSERT_EQ(mkdir(folder.path("metadata.lock").c_str(), 0700), 0);
    EXPECT_EQ(store_capturing(list), -1);
    EXPECT_EQ(messages,
              "Cannot write metadata file 'META': its lock cannot be taken: Is a directory\n");
}

TEST_F(MetadataFile, LockIsFreeAfterwards)
{
    const list_owner list = load();
    ASSERT_EQ(store_metadata(store, list.get()), 0);
    platform::file_lock lock;
    EXPECT_EQ(lock.take(folder.fd(), "metadata.lock", 0), platform::lock_result::TAKEN);
}

struct failing_step {
    int call;
    const char* messages;
};

class MetadataFileFailure : public testing::TestWithParam<failing_step> {};

TEST_P(MetadataFileFailure, IsReportedAndKeepsTheOldFile)
{
    const temporary_folder folder;
    platform::metadata_store store = store_in(folder);
    folder.write("metadata", "a = 1\n");
    const list_owner list(load_metadata(store));
    platform::set_item_entry(list.get(), "a", "2");
    store.operations = &failing_files::operations;
    failing_files::arm(GetParam().call, fate::FAIL, EDQUOT);
    const std::string messages =
        printed_by([&] { EXPECT_EQ(store_metadata(store, list.get()), -1); });
    EXPECT_EQ(messages, GetParam().messages);
    EXPECT_EQ(folder.read("metadata"), "a = 1\n");
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
    failing_files::arm(0, fate::FAIL);
    EXPECT_EQ(store_metadata(store, list.get()), 0) << "a later attempt may succeed";
    EXPECT_EQ(folder.read("metadata"), "a = 2\n");
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, MetadataFileFailure,
    testing::Values(failing_step{1, "Cannot create metadata file 'META': Disk quota exceeded\n"},
                    failing_step{2, "Cannot write metadata file 'META': Disk quota exceeded\n"},
                    failing_step{3, "Cannot sync metadata file 'META': Disk quota exceeded\n"},
                    failing_step{4, "Cannot rename metadata file 'META': Disk quota exceeded\n"}));

TEST_F(MetadataFile, FailingFolderSyncIsReportedAndTheNewFileStays)
{
    folder.write("metadata", "a = 1\n");
    const list_owner list = load();
    platform::set_item_entry(list.get(), "a", "2");
    store.operations = &failing_files::operations;
    failing_files::arm(5, fate::FAIL, EIO);
    EXPECT_EQ(store_capturing(list), -1);
    EXPECT_EQ(messages, "Cannot sync the folder of metadata file 'META': Input/output error\n");
    EXPECT_EQ(folder.read("metadata"), "a = 2\n");
    failing_files::arm(0, fate::FAIL);
    EXPECT_EQ(store_metadata(store, list.get()), 0);
}

TEST_F(MetadataFile, LeftoversOfAKilledWriterAreRemoved)
{
    folder.write("metadata.tmp-0123456789abcdef", "half");
    const list_owner list = load();
    ASSERT_EQ(store_metadata(store, list.get()), 0);
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
}

TEST_F(MetadataFile, ListThatWouldBecomeTooLargeIsNotWritten)
{
    // Bytes that a file may contain unescaped, but that are written as escapes.
    const std::string controls(platform::max_entry_value - 1, '\x01');
    std::string text;
    for (int i = 0; i < 8; ++i) {
        text += "a = " + controls + "\n";
    }
    folder.write("metadata", text);
    const list_owner list = load();
    ASSERT_EQ(list->entries, 8U);
    EXPECT_EQ(store_capturing(list), -1);
    EXPECT_EQ(messages, "Cannot write metadata file 'META': it would become too large\n");
    EXPECT_EQ(folder.read("metadata"), text);
    EXPECT_EQ(metadata_v4_metadata_context_add_name_value_pair(list.get(), "b", 0, "c", 0, -1), -1);
    EXPECT_EQ(platform::set_item_entry(list.get(), "a", controls.substr(1)), 1) << "shorter";
    EXPECT_EQ(platform::set_item_entry(list.get(), "a", "short"), 1);
    EXPECT_EQ(store_capturing(list), 0);
    EXPECT_EQ(folder.read("metadata"), "a = short\n");
}

TEST_F(MetadataFile, UpdateSetsOneEntryAndKeepsTheRest)
{
    folder.write("metadata", "# mine\nx = 1\naspect ratio = 4:3\ny = 2\n");
    EXPECT_EQ(update_capturing("aspect ratio", "16:9"), 0);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(folder.read("metadata"), "# mine\nx = 1\naspect ratio = 16:9\ny = 2\n");
}

TEST_F(MetadataFile, UpdateSeesWhatAnotherProcessWrote)
{
    folder.write("metadata", "x = 1\n");
    const list_owner list = load();
    folder.write("metadata", "x = 2\n");
    EXPECT_EQ(update_capturing("y", "3"), 0);
    EXPECT_EQ(folder.read("metadata"), "x = 2\ny = 3\n");
}

TEST_F(MetadataFile, UpdateCreatesAMissingFile)
{
    EXPECT_EQ(update_capturing("a", "1"), 0);
    EXPECT_EQ(folder.read("metadata"),
              "# Metadata of one media item. One entry a line: name = value\na = 1\n");
}

TEST_F(MetadataFile, UpdateWithoutAChangeDoesNotWrite)
{
    folder.write("metadata", "a=1");
    EXPECT_EQ(update_capturing("a", "1"), 0);
    EXPECT_EQ(folder.read("metadata"), "a=1");
}

TEST_F(MetadataFile, SeveralUpdatesAreOneWrite)
{
    folder.write("metadata", "a = 1\n");
    store.operations = &failing_files::operations;
    ASSERT_EQ(update_stored_metadata(store, {{"a", "4"}, {"b", "3"}}), 0);
    EXPECT_EQ(folder.read("metadata"), "a = 4\nb = 3\n");
    EXPECT_EQ(failing_files::calls(), (strings{"open_at", "write", "sync", "rename_at", "sync"}));
}

TEST_F(MetadataFile, UpdateDoesNotSetADamagedFileAside)
{
    folder.write("metadata", "nonsense");
    EXPECT_EQ(update_capturing("a", "1"), -1);
    EXPECT_EQ(messages,
              "Cannot write metadata file 'META': line 1: neither an entry (name = value) nor "
              "a comment\n");
    EXPECT_EQ(folder.read("metadata"), "nonsense");
}

TEST_F(MetadataFile, RefusedUpdateWritesNothing)
{
    folder.write("metadata", "a = 1\n");
    const platform::item_settings settings = {{"a", "2"}, {"b", std::string("x\0y", 3)}};
    const std::string text =
        printed_by([&] { EXPECT_EQ(update_stored_metadata(store, settings), -1); });
    EXPECT_EQ(text, "Cannot write metadata file 'META': an entry is too large or holds a NUL\n");
    EXPECT_EQ(folder.read("metadata"), "a = 1\n");
}

} // namespace
