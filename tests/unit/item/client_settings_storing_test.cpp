// Durability of the metadata that clients set: a value reported as stored survives the death of the
// worker at any later time, and a value that cannot be stored is reported as such.

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/child_process.h"
#include "tests/unit/item/client_settings_fixture.h"

namespace {

using failing_files::fate;
using item_test::ClientSettings;
using json11::Json;
using platform::list_owner;

// --- durability: a stored value survives the death of the process --------------------------------

// In each round the worker is killed as soon as it has reported "stored".
TEST_F(ClientSettings, KillsRightAfterTheAnswerLoseNothing)
{
    serve();
    for (int round = 0; round < 1000; ++round) {
        const std::string value = std::to_string(round);
        ASSERT_EQ(run_in_child([&] {
                      if (platform::store_client_setting("title", value) ==
                          platform::setting_state::STORED) {
                          kill(getpid(), SIGKILL);
                      }
                      return 0;
                  }),
                  -SIGKILL);
        const list_owner list(platform::load_metadata(platform::opened_item()->store));
        const metadata_v4_entry* entry = platform::find_item_entry(list.get(), "title");
        ASSERT_NE(entry, nullptr) << round;
        ASSERT_EQ(entry->value, value);
        if (round % 10 == 9) { // some starts write the file, most do not
            ASSERT_EQ(platform::store_metadata(platform::opened_item()->store, list.get()), 0);
        }
    }
}

// A value from the command line takes effect but may be missing in the file, because the write
// failed.
TEST_F(ClientSettings, ValueMissingInTheFileIsStoredWhenAClientSetsIt)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    vexa_aspect_ratio = {16, 9};
    vexa_standard_vars_to_metadata(vexa_metadata);
    metadata_v4_metadata_close_file(vexa_metadata);
    ASSERT_EQ(shown("aspect ratio"), "16:9");
    EXPECT_EQ(platform::store_client_setting("aspect ratio", "16:9"),
              platform::setting_state::STORED);
    platform::reset_client_settings(); // as when the process dies
    start_again();
    EXPECT_EQ(shown("aspect ratio"), "16:9");
}

TEST_F(ClientSettings, ValueThatCannotBeStoredIsReported)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    vexa_aspect_ratio = {16, 9};
    vexa_standard_vars_to_metadata(vexa_metadata);
    metadata_v4_metadata_close_file(vexa_metadata);
    use_failing_files();
    failing_files::arm(1, fate::FAIL, ENOSPC);
    messages([] {
        EXPECT_EQ(platform::store_client_setting("aspect ratio", "16:9"),
                  platform::setting_state::NOT_STORED);
    });
    EXPECT_NE(not_stored(), Json());
}

// The list is not written back when the file is no longer the one that was read.
TEST_F(ClientSettings, AreNotWrittenWhileTheListIsNotWrittenBack)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    ASSERT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::STORED);
    write_settings(later());
    EXPECT_FALSE(folder.has("meta/metadata"));
    ASSERT_EQ(
        metadata_v4_metadata_context_write_metadata_to_file(vexa_metadata, vexa_meta, 0, nullptr),
        0);
    metadata_v4_metadata_close_file(vexa_metadata);
    write_settings(later());
    EXPECT_NE(stored().find("title = x\n"), std::string::npos);
    EXPECT_FALSE(folder.has("meta/metadata.pending-1"));
}

// With values of all sizes; the second write is killed at any step.
TEST_F(ClientSettings, KillsDuringTheWriteLoseNothing)
{
    serve();
    for (int step = 1; step <= 8; ++step) {
        const std::string value(static_cast<size_t>(step) * 2000, static_cast<char>('a' + step));
        EXPECT_EQ(run_in_child([&] {
                      use_failing_files();
                      failing_files::arm(0, fate::FAIL);
                      if (platform::store_client_setting("title", value) !=
                          platform::setting_state::STORED) {
                          return 1;
                      }
                      failing_files::arm(step, fate::DIE_AFTER);
                      write_settings(later());
                      return 0;
                  }),
                  -SIGKILL)
            << step;
        const list_owner list(platform::load_metadata(platform::opened_item()->store));
        ASSERT_NE(platform::find_item_entry(list.get(), "title"), nullptr);
        EXPECT_EQ(platform::find_item_entry(list.get(), "title")->value, value) << step;
    }
}

// --- what cannot be stored ----------------------------------------------------------------------

TEST_F(ClientSettings, AreNotStoredWithoutMetadataUpdate)
{
    serve();
    vexa_metadata_may_update = false;
    EXPECT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::NOT_STORED);
    EXPECT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::NOT_STORED);
    EXPECT_EQ(platform::why_settings_are_not_stored(), "the worker runs with --no-metadata-update");
    EXPECT_EQ(names_in_meta(), std::vector<std::string>{"metadata.lock"});
}

TEST_F(ClientSettings, AreShownAsNotStoredUntilTheyAre)
{
    serve();
    EXPECT_EQ(not_stored(), Json());
    use_failing_files();
    failing_files::arm(1, fate::FAIL, ENOSPC); // fails to create the pending file
    EXPECT_EQ(messages([&] {
                  EXPECT_EQ(platform::store_client_setting("ti\"tle\xFF", "x"),
                            platform::setting_state::NOT_STORED);
              }),
              "Cannot store metadata of a client '" + folder.path("meta/metadata") +
                  "': No space left on device\n");
    EXPECT_EQ(shown("ti\"tle\xFF"), "x");
    const Json expected = Json::object{{"count", 1},
                                       {"names", Json::array{"ti\"tle\uFFFD"}},
                                       {"reason", "No space left on device"}};
    EXPECT_EQ(not_stored(), expected);
    write_settings(later());
    EXPECT_EQ(not_stored(), Json());
    EXPECT_NE(stored().find(" = x\n"), std::string::npos);
}

// Once there is space, setting the same value again stores it, and the others with it.
TEST_F(ClientSettings, AreStoredWithTheNextSuccessfulOne)
{
    serve();
    use_failing_files();
    failing_files::arm(1, fate::FAIL, ENOSPC);
    messages([] { platform::store_client_setting("one", "1"); });
    failing_files::arm(1, fate::FAIL, ENOSPC);
    messages([] { platform::store_client_setting("two", "2"); });
    EXPECT_EQ(platform::client_setting_state("one"), platform::setting_state::NOT_STORED);
    EXPECT_EQ(platform::store_client_setting("two", "2"), platform::setting_state::STORED);
    EXPECT_EQ(platform::client_setting_state("one"), platform::setting_state::STORED);
    platform::reset_client_settings();
    start_again();
    EXPECT_EQ(shown("one"), "1");
    EXPECT_EQ(shown("two"), "2");
}

TEST_F(ClientSettings, EachFailingCallIsReportedOrRetried)
{
    for (int call = 1; call <= 12; ++call) {
        platform::reset_item();
        name_item();
        serve();
        use_failing_files();
        failing_files::arm(call, fate::FAIL, EIO);
        const std::string value = std::to_string(call);
        messages([&] {
            const platform::setting_state state = platform::store_client_setting("title", value);
            EXPECT_EQ(state, call <= 2 ? platform::setting_state::NOT_STORED
                                       : platform::setting_state::STORED)
                << call;
            vexa_free_all(); // tries twice
        });
        EXPECT_NE(stored().find("title = " + value + "\n"), std::string::npos) << call;
        EXPECT_EQ(names_in_meta(), (std::vector<std::string>{"metadata", "metadata.lock"})) << call;
    }
}

TEST_F(ClientSettings, ValueStoredNowhereAtTheEndIsReportedAsLost)
{
    serve();
    static platform::file_operations full;
    full = platform::system_file_operations;
    full.open_at = [](int, const char*, int, mode_t) {
        errno = ENOSPC;
        return -1;
    };
    operations(full);
    const std::string reported = messages([] {
        EXPECT_EQ(platform::store_client_setting("title", "x"),
                  platform::setting_state::NOT_STORED);
        vexa_free_all();
    });
    const std::string attempt =
        "Cannot create metadata file '" + folder.path("meta/metadata") + "'";
    EXPECT_NE(reported.find(attempt), reported.rfind(attempt)); // two attempts
    EXPECT_TRUE(reported.ends_with("What clients have set is lost\n"));
}

TEST_F(ClientSettings, RemovedFolderIsNoticed)
{
    serve();
    ASSERT_EQ(platform::store_client_setting("one", "1"), platform::setting_state::STORED);
    std::filesystem::remove_all(folder.path("meta"));
    messages([] {
        EXPECT_EQ(platform::store_client_setting("two", "2"), platform::setting_state::NOT_STORED);
        EXPECT_EQ(platform::client_setting_state("one"), platform::setting_state::NOT_STORED);
    });
    EXPECT_EQ(platform::why_settings_are_not_stored(), "No such file or directory");
}

TEST_F(ClientSettings, RemovedPendingFileIsRecreated)
{
    serve();
    ASSERT_EQ(platform::store_client_setting("one", "1"), platform::setting_state::STORED);
    unlink(folder.path("meta/metadata.pending-1").c_str());
    ASSERT_EQ(platform::store_client_setting("two", "2"), platform::setting_state::STORED);
    platform::reset_client_settings();
    start_again();
    EXPECT_EQ(shown("one"), "1");
    EXPECT_EQ(shown("two"), "2");
}

// Uses a real file system that is full.
TEST_F(ClientSettings, FullDiskIsReportedAndTheValueStoredOnceThereIsSpace)
{
    mkdir(folder.path("meta").c_str(), 0700);
    const int result = run_in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", folder.path("meta").c_str(), "tmpfs", 0, "size=64k") != 0) {
            return 2;
        }
        serve();
        const std::string filler = folder.path("meta/filler");
        const unique_fd file(open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const std::string page(4096, 'x');
        while (write(file.get(), page.data(), page.size()) > 0) {
        }
        const std::string reported = messages([&] {
            EXPECT_EQ(platform::store_client_setting("title", "x"),
                      platform::setting_state::NOT_STORED);
            write_settings(later());
        });
        EXPECT_NE(reported.find("No space left on device"), std::string::npos);
        EXPECT_EQ(not_stored()["names"][0], Json("title"));
        unlink(filler.c_str());
        EXPECT_EQ(ftruncate(file.get(), 0), 0);
        write_settings(later() + 10'000'000);
        EXPECT_EQ(not_stored(), Json());
        EXPECT_NE(stored().find("title = x\n"), std::string::npos);
        return HasFailure() ? 1 : 0;
    });
    if (result == 2) {
        GTEST_SKIP() << "needs the right to mount a file system";
    }
    EXPECT_EQ(result, 0);
}

TEST_F(ClientSettings, ReadOnlyFolderIsReported)
{
    mkdir(folder.path("meta").c_str(), 0700);
    folder.write("meta/metadata", "title = old\n");
    const int result = run_in_child([&] {
        const std::string meta = folder.path("meta");
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(meta.c_str(), meta.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            mount("none", meta.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
            return 2;
        }
        serve();
        messages([&] {
            EXPECT_EQ(platform::store_client_setting("title", "x"),
                      platform::setting_state::NOT_STORED);
            write_settings(later());
        });
        EXPECT_EQ(platform::client_setting_state("title"), platform::setting_state::NOT_STORED);
        EXPECT_NE(platform::why_settings_are_not_stored().find("Read-only file system"),
                  std::string::npos);
        EXPECT_EQ(shown("title"), "x");
        EXPECT_EQ(stored(), "title = old\n");
        return HasFailure() ? 1 : 0;
    });
    if (result == 2) {
        GTEST_SKIP() << "needs the right to mount a file system";
    }
    EXPECT_EQ(result, 0);
}

// --- clients that set values in a loop -----------------------------------------------------------

TEST_F(ClientSettings, SettingInALoopWaitsForTheNextWrite)
{
    serve();
    const std::string long_text(16000, 'v');
    platform::setting_state state = platform::setting_state::STORED;
    int sets = 0;
    for (; state == platform::setting_state::STORED && sets < 2000; ++sets) {
        state = platform::store_client_setting("title", long_text + std::to_string(sets));
    }
    ASSERT_EQ(state, platform::setting_state::WAITS);
    EXPECT_LE(std::filesystem::file_size(folder.path("meta/metadata.pending-1")),
              platform::max_pending_file);
    EXPECT_EQ(platform::store_client_setting("other", "x"),
              platform::setting_state::STORED); // a small value still fits
    EXPECT_EQ(platform::client_setting_state("title"), platform::setting_state::WAITS);
    EXPECT_EQ(not_stored()["reason"], Json("not written yet"));
    write_settings(later());
    EXPECT_EQ(platform::client_setting_state("title"), platform::setting_state::STORED);
    EXPECT_NE(stored().find("v" + std::to_string(sets - 1) + "\n"), std::string::npos);
    EXPECT_EQ(platform::store_client_setting("title", "short"), platform::setting_state::STORED);
}

TEST_F(ClientSettings, WaitEndsWhenTheWriteFails)
{
    serve();
    const unique_fd other(
        open(folder.path("meta/metadata.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
    const std::string long_text(16000, 'v');
    platform::setting_state state = platform::setting_state::STORED;
    for (int sets = 0; state == platform::setting_state::STORED && sets < 2000; ++sets) {
        state = platform::store_client_setting("title", long_text + std::to_string(sets));
    }
    ASSERT_EQ(state, platform::setting_state::WAITS);
    messages([&] { write_settings(later()); });
    EXPECT_EQ(platform::client_setting_state("title"), platform::setting_state::NOT_STORED);
    EXPECT_EQ(platform::store_client_setting("title", long_text),
              platform::setting_state::NOT_STORED);
    EXPECT_EQ(platform::why_settings_are_not_stored(), "another process holds its lock");
    messages(platform::store_client_settings_now);
}

} // namespace
