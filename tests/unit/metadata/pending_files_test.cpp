// Pending settings of the metadata file: their owner appends them, a write of the file merges them,
// and a later start merges those of processes that have died.

#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/metadata/pending_files.h"
#include "tests/support/child_process.h"
#include "tests/support/failing_files.h"
#include "tests/unit/metadata/metadata_fixture.h"

namespace {

using failing_files::fate;
using platform::append_result;
using platform::item_settings;
using platform::pending_file;
using strings = std::vector<std::string>;

std::string record_of(std::string_view name, std::string_view value)
{
    std::string text;
    platform::append_set_record(&text, name, value);
    return text;
}

class PendingFiles : public testing::Test {
protected:
    PendingFiles() { failing_files::arm(0, fate::FAIL); }

    append_result append(std::string_view name, std::string_view value)
    {
        return platform::append_pending(store, &own, record_of(name, value), &reason);
    }

    // A child process appends a setting and dies.
    void leave(std::string_view name, std::string_view value) const
    {
        EXPECT_EQ(run_in_child([&] {
                      pending_file dying;
                      std::string why;
                      return platform::append_pending(store, &dying, record_of(name, value),
                                                      &why) == append_result::APPENDED
                                 ? 0
                                 : 1;
                  }),
                  0);
    }

    // The value that a start would load for `name`.
    std::string loaded(const char* name = "a") const
    {
        const list_owner list(platform::load_metadata(store));
        const metadata_v4_entry* entry = platform::find_item_entry(list.get(), name);
        return entry != nullptr ? entry->value : "(none)";
    }

    // Like a start that writes. Returns 0 on success, -2 when nothing is left to write.
    int load_and_store() const
    {
        const list_owner list(platform::load_metadata(store));
        return platform::has_unwritten_settings(list.get())
                   ? platform::store_metadata(store, list.get())
                   : -2;
    }

    temporary_folder folder;
    platform::metadata_store store = store_in(folder);
    pending_file own;
    std::string reason;
};

// --- the owner ----------------------------------------------------------------------------------

TEST_F(PendingFiles, AreReadableByTheUserOnlyAndTakeEffectImmediately)
{
    folder.write("metadata", "a = old\n");
    ASSERT_EQ(append("a", "new"), append_result::APPENDED);
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.pending-1"}));
    EXPECT_EQ(folder.read("metadata.pending-1"), record_of("a", "new"));
    struct stat status = {};
    ASSERT_EQ(stat(folder.path("metadata.pending-1").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(loaded(), "new");
    EXPECT_EQ(folder.read("metadata"), "a = old\n");
}

TEST_F(PendingFiles, OneAppendIsOneWriteWithoutSync)
{
    store.operations = &failing_files::operations;
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    failing_files::arm(0, fate::FAIL);
    ASSERT_EQ(append("a", "2"), append_result::APPENDED);
    EXPECT_EQ(failing_files::calls(), strings{"write"});
}

TEST_F(PendingFiles, WriteOfTheMetadataFileMergesAndRemovesThem)
{
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    ASSERT_EQ(update_stored_metadata(store, {{"a", "1"}}, &own), 0);
    EXPECT_FALSE(own);
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
    EXPECT_EQ(loaded(), "1");
}

TEST_F(PendingFiles, SettingsThatTheFileAlreadyHasAreRemovedWithoutAWrite)
{
    folder.write("metadata", "a = 1\n");
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    struct stat before = {};
    stat(folder.path("metadata").c_str(), &before);
    ASSERT_EQ(update_stored_metadata(store, {{"a", "1"}}, &own), 0);
    struct stat after = {};
    stat(folder.path("metadata").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_FALSE(folder.has("metadata.pending-1"));
}

TEST_F(PendingFiles, FailingWriteLeavesTheFileUnchanged)
{
    store.operations = &failing_files::operations;
    failing_files::arm(2, fate::FAIL, ENOSPC); // fails the write, which follows open_at
    EXPECT_EQ(append("a", "1"), append_result::FAILED);
    EXPECT_EQ(reason, "No space left on device");
    EXPECT_TRUE(folder.names().empty());
    ASSERT_EQ(append("a", "2"), append_result::APPENDED);
    failing_files::arm(1, fate::FAIL, EDQUOT);
    EXPECT_EQ(append("a", "3"), append_result::FAILED);
    EXPECT_EQ(reason, "Disk quota exceeded");
    ASSERT_EQ(append("b", "4"), append_result::APPENDED);
    EXPECT_EQ(folder.read("metadata.pending-1"), record_of("a", "2") + record_of("b", "4"));
}

TEST_F(PendingFiles, PartialWriteIsUndone)
{
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    store.operations = &failing_files::operations;
    failing_files::arm(0, fate::HALF_WRITES);
    EXPECT_EQ(append("a", "2"), append_result::FAILED);
    EXPECT_EQ(reason, "No space left on device");
    EXPECT_EQ(folder.read("metadata.pending-1"), record_of("a", "1"));
}

TEST_F(PendingFiles, PartialWriteThatCannotBeUndoneDamagesNoOtherRecord)
{
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    const unique_fd file(
        open(folder.path("metadata.pending-1").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    ASSERT_EQ(write(file.get(), "0123", 4), 4);
    ASSERT_EQ(append("b", "2"), append_result::APPENDED);
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(loaded("b"), "2"); }),
              "Cannot read pending metadata 'metadata.pending-1': 1 damaged lines are passed "
              "over\n");
    EXPECT_EQ(loaded(), "1");
}

TEST_F(PendingFiles, RemovalOfTheFileIsNoticed)
{
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    EXPECT_FALSE(platform::pending_file_is_lost(own));
    unlink(folder.path("metadata.pending-1").c_str());
    EXPECT_TRUE(platform::pending_file_is_lost(own));
    EXPECT_FALSE(platform::pending_file_is_lost(pending_file()));
}

TEST_F(PendingFiles, SizeIsBoundedByTheLimitOfTheMetadataFile)
{
    const std::string record = std::string((1U << 20) - 1, 'x') + '\n';
    folder.write("metadata", std::string((size_t{10} << 20), '\n'));
    int appended = 0;
    while (platform::append_pending(store, &own, record, &reason) == append_result::APPENDED) {
        ++appended;
    }
    EXPECT_EQ(appended, 6);
    EXPECT_EQ(append("a", "1"), append_result::FULL);
}

TEST_F(PendingFiles, NumberOfFilesIsLimited)
{
    for (size_t i = 1; i <= platform::max_pending_files; ++i) {
        folder.write("metadata.pending-" + std::to_string(i), "");
    }
    EXPECT_EQ(append("a", "1"), append_result::FAILED);
    EXPECT_EQ(reason, "too many pending files");
}

TEST_F(PendingFiles, NumberBeyondTheReadersRangeIsNotUsed)
{
    folder.write("metadata.pending-999999999", "");
    EXPECT_EQ(append("a", "1"), append_result::FAILED);
    EXPECT_EQ(reason, "too many pending files");
}

TEST_F(PendingFiles, LaterFilesHaveHigherNumbers)
{
    folder.write("metadata.pending-7", record_of("a", "1"));
    ASSERT_EQ(append("a", "2"), append_result::APPENDED);
    EXPECT_EQ(own.name, "metadata.pending-8");
    EXPECT_EQ(loaded(), "2");
}

// --- processes that have died --------------------------------------------------------------------

TEST_F(PendingFiles, OfDeadProcessesAreWrittenByTheNextStart)
{
    folder.write("metadata", "# mine\na = old\nb = kept\n");
    leave("a", "new");
    EXPECT_EQ(loaded(), "new");
    EXPECT_EQ(load_and_store(), 0);
    EXPECT_EQ(folder.read("metadata"), "# mine\na = new\nb = kept\n");
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
    EXPECT_EQ(load_and_store(), -2); // nothing is left to write
}

TEST_F(PendingFiles, OfRunningProcessesAreShownAndLeftAlone)
{
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    EXPECT_EQ(run_in_child([&] { return loaded() == "1" && load_and_store() == -2 ? 0 : 1; }), 0);
    EXPECT_TRUE(folder.has("metadata.pending-1"));
    EXPECT_FALSE(platform::pending_file_is_lost(own));
}

TEST_F(PendingFiles, OfDeadProcessesAreMergedByAnyOtherWrite)
{
    leave("a", "1");
    leave("b", "2");
    ASSERT_EQ(append("a", "3"), append_result::APPENDED);
    ASSERT_EQ(update_stored_metadata(store, {{"a", "3"}}, &own), 0);
    EXPECT_EQ(loaded("a"), "3"); // the value in the later file
    EXPECT_EQ(loaded("b"), "2");
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
}

TEST_F(PendingFiles, SurviveADamagedMetadataFile)
{
    folder.write("metadata", "no entry");
    leave("a", "1");
    printed_by([&] { EXPECT_EQ(load_and_store(), 0); });
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.damaged-1", "metadata.lock"}));
    EXPECT_EQ(loaded(), "1");
}

TEST_F(PendingFiles, AreReadFromAFolderThatCannotBeLocked)
{
    folder.write("metadata", "a = old\n");
    leave("a", "new");
    ASSERT_EQ(mkdir(folder.path("metadata.lock").c_str(), 0700), 0);
    EXPECT_EQ(loaded(), "new");
    EXPECT_TRUE(folder.has("metadata.pending-1"));
}

// Its values would otherwise override the metadata file for ever.
TEST_F(PendingFiles, OwnFileWithoutWritePermissionIsMergedAndRemoved)
{
    folder.write("metadata", "a = old\n");
    if (geteuid() == 0) {
        ASSERT_EQ(chown(folder.path().c_str(), unprivileged_user, unprivileged_user), 0);
    }
    EXPECT_EQ(run_without_privileges([&] {
                  leave("a", "new");
                  chmod(folder.path("metadata.pending-1").c_str(), 0400);
                  return loaded() == "new" && load_and_store() == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(folder.read("metadata"), "a = new\n");
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
}

TEST_F(PendingFiles, OfAnotherUserAreReadAndLeftAlone)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files away";
    }
    leave("a", "new");
    chmod(folder.path("metadata.pending-1").c_str(), 0444);
    ASSERT_EQ(chown(folder.path().c_str(), unprivileged_user, unprivileged_user), 0);
    EXPECT_EQ(
        run_without_privileges([&] { return loaded() == "new" && load_and_store() == -2 ? 0 : 1; }),
        0);
    EXPECT_EQ(folder.names(), (strings{"metadata.lock", "metadata.pending-1"}));
}

// The writer dies before it can remove its pending file. A later edit of the metadata file by hand
// wins.
TEST_F(PendingFiles, MergedSettingsAreNotMergedAgain)
{
    const int ended = run_in_child([&] {
        store.operations = &failing_files::operations;
        append("a", "1");
        // Steps: open_at, write, sync, write of the mark, rename_at, sync, unlink_at.
        folder.write("metadata", "a = 0\n");
        failing_files::arm(7, fate::DIE_BEFORE);
        return update_stored_metadata(store, {{"a", "1"}}, &own);
    });
    ASSERT_EQ(ended, -SIGKILL);
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock", "metadata.pending-1"}));
    EXPECT_EQ(folder.read("metadata"), "a = 1\n");
    folder.write("metadata", "a = by hand\n");
    EXPECT_EQ(loaded(), "by hand");
    ASSERT_EQ(update_stored_metadata(store, {{"b", "2"}}), 0);
    EXPECT_EQ(folder.read("metadata"), "a = by hand\nb = 2\n");
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
}

// After a kill at any step of a write, and of the write after it, the next start still has the
// setting.
TEST_F(PendingFiles, KillAtEveryStepKeepsTheSetting)
{
    constexpr int steps = 7;
    for (const fate moment : {fate::DIE_BEFORE, fate::DIE_AFTER}) {
        for (int step = 1; step <= steps; ++step) {
            const temporary_folder place;
            place.write("metadata", "a = old\n");
            platform::metadata_store there = store_in(place);
            const int ended = run_in_child([&] {
                pending_file dying;
                std::string why;
                there.operations = &failing_files::operations;
                platform::append_pending(there, &dying, record_of("a", "new"), &why);
                failing_files::arm(step, moment);
                return update_stored_metadata(there, {{"a", "new"}}, &dying);
            });
            ASSERT_EQ(ended, -SIGKILL) << "step " << step;
            // The next start loads the setting; its own write is killed at every step, too.
            for (int second = 1; second <= steps; ++second) {
                run_in_child([&] {
                    there.operations = &failing_files::operations;
                    const list_owner list(platform::load_metadata(there));
                    failing_files::arm(second, moment);
                    return platform::store_metadata(there, list.get());
                });
                const list_owner list(platform::load_metadata(there));
                const metadata_v4_entry* entry = platform::find_item_entry(list.get(), "a");
                ASSERT_NE(entry, nullptr);
                ASSERT_STREQ(entry->value, "new") << step << " then " << second;
            }
            ASSERT_EQ(update_stored_metadata(there, {{"b", "2"}}), 0);
            EXPECT_EQ(place.read("metadata"), "a = new\nb = 2\n") << step;
            EXPECT_EQ(place.names(), (strings{"metadata", "metadata.lock"})) << step;
        }
    }
}

// Whichever call fails, nothing is lost and the next attempt succeeds.
TEST_F(PendingFiles, EachFailingCallOfAWriteKeepsTheSetting)
{
    constexpr int steps = 7;
    for (int step = 1; step <= steps; ++step) {
        const temporary_folder place;
        place.write("metadata", "a = old\n");
        platform::metadata_store there = store_in(place);
        pending_file mine;
        there.operations = &failing_files::operations;
        failing_files::arm(0, fate::FAIL);
        ASSERT_EQ(platform::append_pending(there, &mine, record_of("a", "new"), &reason),
                  append_result::APPENDED);
        failing_files::arm(step, fate::FAIL, EIO);
        printed_by([&] {
            // The last call only removes the pending file, so its failure does not matter.
            EXPECT_EQ(update_stored_metadata(there, {{"a", "new"}}, &mine, &reason),
                      step == steps ? 0 : -1);
        });
        EXPECT_EQ(step == steps ? "Input/output error" : reason, "Input/output error") << step;
        failing_files::arm(0, fate::FAIL);
        const list_owner list(platform::load_metadata(there));
        EXPECT_STREQ(platform::find_item_entry(list.get(), "a")->value, "new") << step;
        ASSERT_EQ(platform::append_pending(there, &mine, record_of("a", "next"), &reason),
                  append_result::APPENDED);
        EXPECT_EQ(update_stored_metadata(there, {{"a", "next"}}, &mine, &reason), 0);
        EXPECT_EQ(place.read("metadata"), "a = next\n") << step;
        EXPECT_EQ(place.names(), (strings{"metadata", "metadata.lock"})) << step;
    }
}

// When both the rename and the removal of the mark fail, the temporary file has to stay. Otherwise
// the mark would claim that the settings are stored.
TEST_F(PendingFiles, MarkThatCannotBeRemovedKeepsItsTemporaryFile)
{
    static platform::file_operations broken;
    broken = platform::system_file_operations;
    broken.rename_at = [](int, const char*, const char*) {
        errno = EIO;
        return -1;
    };
    broken.truncate = [](int, off_t) {
        errno = EIO;
        return -1;
    };
    folder.write("metadata", "z = 0\n");
    ASSERT_EQ(append("a", "1"), append_result::APPENDED);
    store.operations = &broken;
    printed_by([&] { EXPECT_EQ(update_stored_metadata(store, {{"a", "1"}}, &own), -1); });
    EXPECT_EQ(folder.names().size(), 4U); // the fourth is the lock
    EXPECT_EQ(loaded(), "1");
    // Another writer keeps the temporary file, too.
    store.operations = &platform::system_file_operations;
    ASSERT_EQ(update_stored_metadata(store, {{"b", "2"}}), 0);
    EXPECT_EQ(loaded(), "1");
    platform::remove_left_temporaries(store);
    EXPECT_EQ(loaded(), "1");
    ASSERT_EQ(update_stored_metadata(store, {{"a", "1"}}, &own), 0);
    ASSERT_EQ(update_stored_metadata(store, {{"c", "3"}}), 0);
    EXPECT_EQ(folder.names(), (strings{"metadata", "metadata.lock"}));
    EXPECT_EQ(folder.read("metadata"), "z = 0\nb = 2\na = 1\nc = 3\n");
}

// --- files that others may have put there --------------------------------------------------------

TEST_F(PendingFiles, OtherKindsOfFilesAreSkipped)
{
    folder.write("metadata", "a = 1\n");
    folder.write("elsewhere", record_of("a", "2"));
    ASSERT_EQ(symlink("elsewhere", folder.path("metadata.pending-1").c_str()), 0);
    ASSERT_EQ(mkdir(folder.path("metadata.pending-2").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo(folder.path("metadata.pending-3").c_str(), 0600), 0);
    for (const char* name :
         {"metadata.pending-", "metadata.pending-0", "metadata.pending-01", "metadata.pending-x",
          "metadata.pending-1x", "metadata.pending-9999999999"}) {
        folder.write(name, record_of("a", "2"));
    }
    const std::string messages = printed_by([&] { EXPECT_EQ(loaded(), "1"); });
    EXPECT_NE(messages.find("Cannot read pending metadata 'metadata.pending-2'"),
              std::string::npos);
    EXPECT_NE(messages.find("'metadata.pending-3': not a regular file"), std::string::npos);
}

TEST_F(PendingFiles, HugeFileIsRefusedWithoutReading)
{
    folder.write("metadata", "a = 1\n");
    folder.write("metadata.pending-1", "");
    ASSERT_EQ(truncate(folder.path("metadata.pending-1").c_str(), off_t{1} << 40), 0);
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(loaded(), "1"); }),
              "Cannot read pending metadata 'metadata.pending-1': the file is too large\n");
}

TEST_F(PendingFiles, DamagedFileIsSetAsideAfterItsValidLinesAreMerged)
{
    const std::string text = record_of("a", "1") + "rubbish\n" + record_of("b", "2");
    folder.write("metadata.pending-1", text);
    printed_by([&] { EXPECT_EQ(load_and_store(), 0); });
    EXPECT_EQ(loaded("a"), "1");
    EXPECT_EQ(loaded("b"), "2");
    EXPECT_FALSE(folder.has("metadata.pending-1"));
    EXPECT_EQ(folder.read("metadata.damaged-1").substr(0, text.size()), text);
}

// All names are merged in one pass; a pass for each name would take far too long.
TEST_F(PendingFiles, ManyNamesAreMergedQuickly)
{
    std::string list_text;
    std::string text;
    for (int i = 0; i < 100'000; ++i) {
        list_text += "n" + std::to_string(i) + " = 1\n";
        platform::append_set_record(&text, "n" + std::to_string(i), "2");
    }
    folder.write("metadata", list_text);
    folder.write("metadata.pending-1", text);
    EXPECT_EQ(load_and_store(), 0);
    EXPECT_EQ(loaded("n99999"), "2");
}

} // namespace
