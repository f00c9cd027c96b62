// Several processes that use one stored file, and processes that are killed while they write it.

#include <csignal>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"
#include "tests/support/child_process.h"
#include "tests/support/failing_files.h"
#include "tests/unit/metadata/metadata_fixture.h"

namespace {

using failing_files::fate;

constexpr uint64_t long_wait_us = 60'000'000;

TEST(StoredMetadataRace, KillAtEveryStepLeavesTheOldOrTheNewFile)
{
    constexpr int steps = 5; // create, write, sync, rename, sync of the folder
    for (const fate moment : {fate::DIE_BEFORE, fate::DIE_AFTER}) {
        for (int step = 1; step <= steps; ++step) {
            const temporary_folder folder;
            folder.write("metadata", "a = old\n");
            platform::metadata_store store = store_in(folder);
            const int ended = run_in_child([&] {
                store.operations = &failing_files::operations;
                failing_files::arm(step, moment);
                return update_stored_metadata(store, {{"a", "new"}});
            });
            ASSERT_EQ(ended, -SIGKILL) << "step " << step;
            const bool renamed = step > 4 || (step == 4 && moment == fate::DIE_AFTER);
            EXPECT_EQ(folder.read("metadata"), renamed ? "a = new\n" : "a = old\n");
            EXPECT_EQ(update_stored_metadata(store, {{"a", "next"}}), 0);
            EXPECT_EQ(folder.read("metadata"), "a = next\n");
            EXPECT_EQ(folder.names(), (std::vector<std::string>{"metadata", "metadata.lock"}));
        }
    }
}

// Each process sets its own entries repeatedly: none may be lost.
TEST(StoredMetadataRace, UpdatesOfTwoProcessesAreAllKept)
{
    constexpr int rounds = 50;
    const temporary_folder folder;
    folder.write("metadata", "unknown = kept\n");
    platform::metadata_store store = store_in(folder);
    store.lock_limit_us = long_wait_us;
    const auto update_often = [&](const std::string& who) {
        for (int round = 0; round < rounds; ++round) {
            const std::string name = who + std::to_string(round);
            if (update_stored_metadata(store, {{name, "set"}}) != 0) {
                return 1;
            }
        }
        return 0;
    };
    child_process first([&] { return update_often("first "); });
    child_process second([&] { return update_often("second "); });
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    const list_owner list(platform::load_metadata(store));
    EXPECT_EQ(list->entries, 1U + 2 * rounds);
}

void silence_standard_error()
{
    const unique_fd nowhere(platform::open_file("/dev/null", O_WRONLY));
    dup2(nowhere.get(), STDERR_FILENO);
}

// Two workers start on a new item at once: one writes, the other reports that and does not.
TEST(StoredMetadataRace, OneOfTwoFirstWritersWins)
{
    for (int round = 0; round < 20; ++round) {
        const temporary_folder folder;
        platform::metadata_store store = store_in(folder);
        store.lock_limit_us = long_wait_us;
        int go[2] = {};
        ASSERT_EQ(pipe(go), 0);
        const auto start_worker = [&](const char* who) {
            return std::make_unique<child_process>([&, who] {
                silence_standard_error();
                const list_owner list(platform::load_metadata(store));
                platform::set_item_entry(list.get(), "writer", who);
                char byte = '\0';
                close(go[1]);
                if (read(go[0], &byte, 1) != 0) {
                    return 2;
                }
                return platform::store_metadata(store, list.get()) == 0 ? 0 : 1;
            });
        };
        // Both load the empty list before either may write; each waits for the pipe to close.
        const auto first = start_worker("first");
        const auto second = start_worker("second");
        usleep(2000);
        close(go[1]);
        close(go[0]);
        const int first_lost = first->wait();
        const int second_lost = second->wait();
        EXPECT_LE(first_lost + second_lost, 1);
        const list_owner list(platform::load_metadata(store));
        const metadata_v4_entry* writer = platform::find_item_entry(list.get(), "writer");
        ASSERT_NE(writer, nullptr);
        if (first_lost + second_lost == 1) {
            EXPECT_STREQ(writer->value, first_lost == 0 ? "first" : "second");
        }
    }
}

// Two workers find the same damaged file. It is set aside once, and the good file that the first
// one writes stays.
TEST(StoredMetadataRace, DamagedFileIsSetAsideOnce)
{
    for (int round = 0; round < 20; ++round) {
        const temporary_folder folder;
        folder.write("metadata", "nonsense");
        platform::metadata_store store = store_in(folder);
        store.lock_limit_us = long_wait_us;
        const auto worker = [&] {
            silence_standard_error();
            const list_owner list(platform::load_metadata(store));
            platform::set_item_entry(list.get(), "a", "1");
            platform::store_metadata(store, list.get());
            return 0;
        };
        child_process first(worker);
        child_process second(worker);
        EXPECT_EQ(first.wait(), 0);
        EXPECT_EQ(second.wait(), 0);
        EXPECT_EQ(folder.names(),
                  (std::vector<std::string>{"metadata", "metadata.damaged-1", "metadata.lock"}));
        EXPECT_EQ(folder.read("metadata.damaged-1"), "nonsense");
    }
}

// Readers always see the old or the new text as a whole while a writer replaces the file.
TEST(StoredMetadataRace, ReadersAlwaysFindAWholeFile)
{
    const temporary_folder folder;
    folder.write("metadata", "a = 0\nb = 0\n");
    platform::metadata_store store = store_in(folder);
    child_process writer([&] {
        for (int value = 0;; ++value) {
            const std::string text = std::to_string(value);
            if (update_stored_metadata(store, {{"a", text}, {"b", text}}) != 0) {
                return 1;
            }
        }
        return 0;
    });
    for (int round = 0; round < 500; ++round) {
        const list_owner list(platform::load_metadata(store));
        ASSERT_NE(list, nullptr);
        ASSERT_EQ(list->entries, 2U);
        ASSERT_STREQ(platform::find_item_entry(list.get(), "a")->value,
                     platform::find_item_entry(list.get(), "b")->value);
    }
}

} // namespace
