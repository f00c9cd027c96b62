#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/run_state.h"
#include "tests/unit/item/client_settings_fixture.h"

namespace {

using item_test::ClientSettings;

TEST_F(ClientSettings, TakeEffectAtOnceAndAreWrittenAfterASecond)
{
    serve();
    ASSERT_EQ(platform::store_client_setting("title", "A picture"),
              platform::setting_state::STORED);
    EXPECT_EQ(shown("title"), "A picture");
    write_settings(monotonic_clock_us());
    EXPECT_EQ(stored().find("title"), std::string::npos);
    EXPECT_TRUE(folder.has("meta/metadata.pending-1"));
    write_settings(later());
    EXPECT_NE(stored().find("title = A picture\n"), std::string::npos);
    EXPECT_FALSE(folder.has("meta/metadata.pending-1"));
}

TEST_F(ClientSettings, ManySettingsAreOneWrite)
{
    serve();
    for (int i = 0; i < 100'000; ++i) {
        ASSERT_EQ(platform::store_client_setting("title", std::to_string(i)),
                  platform::setting_state::STORED);
    }
    EXPECT_FALSE(folder.has("meta/metadata"));
    write_settings(later());
    EXPECT_NE(stored().find("title = 99999\n"), std::string::npos);
    struct stat before = {};
    stat(folder.path("meta/metadata").c_str(), &before);
    write_settings(later() + 10'000'000);
    struct stat after = {};
    stat(folder.path("meta/metadata").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(ClientSettings, OtherEntriesOfTheFileArePreserved)
{
    mkdir(folder.path("meta").c_str(), 0700);
    folder.write("meta/metadata", "# mine\none = 1\naspect ratio = 4:3\n");
    serve();
    ASSERT_EQ(platform::store_client_setting("aspect ratio", "16:9"),
              platform::setting_state::STORED);
    folder.write("meta/metadata", "# mine\none = 1\naspect ratio = 4:3\nadded = by hand\n");
    write_settings(later());
    EXPECT_EQ(stored(), "# mine\none = 1\naspect ratio = 16:9\nadded = by hand\n");
}

TEST_F(ClientSettings, WaitingSettingsAreWrittenAtTheEndOfTheProcess)
{
    serve();
    ASSERT_EQ(platform::store_client_setting("title", "last words"),
              platform::setting_state::STORED);
    vexa_free_all();
    EXPECT_NE(stored().find("title = last words\n"), std::string::npos);
}

TEST_F(ClientSettings, WithoutMetadataUpdateNothingIsWritten)
{
    serve();
    vexa_metadata_may_update = false;
    ASSERT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::NOT_STORED);
    EXPECT_EQ(shown("title"), "x");
    write_settings(later());
    vexa_free_all();
    EXPECT_FALSE(folder.has("meta/metadata"));
}

TEST_F(ClientSettings, UnchangedValueIsNotWritten)
{
    mkdir(folder.path("meta").c_str(), 0700);
    folder.write("meta/metadata", "title = x\n");
    serve();
    struct stat before = {};
    stat(folder.path("meta/metadata").c_str(), &before);
    ASSERT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::STORED);
    write_settings(later());
    struct stat after = {};
    stat(folder.path("meta/metadata").c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(ClientSettings, FactsOfTheWorkerAreRefused)
{
    serve();
    for (const char* name : {"file type", "GUID", "image size", "picture size", "picture time",
                             "time duration", "time scale", "video streams"}) {
        EXPECT_EQ(platform::store_client_setting(name, "1"), platform::setting_state::REFUSED)
            << name;
        EXPECT_EQ(shown(name), "(none)") << name;
    }
    EXPECT_EQ(platform::store_client_setting("file type ", "1"), platform::setting_state::STORED);
}

TEST_F(ClientSettings, KnownNamesNeedValidValues)
{
    serve();
    for (const char* value : {"", "wide", "16:0", "-1:1", "16:9:1"}) {
        EXPECT_EQ(platform::store_client_setting("aspect ratio", value),
                  platform::setting_state::REFUSED)
            << value;
    }
    for (const char* value : {"", "loud", "2"}) {
        EXPECT_EQ(platform::store_client_setting("background music", value),
                  platform::setting_state::REFUSED)
            << value;
    }
    EXPECT_EQ(shown("aspect ratio"), "(none)");
    EXPECT_EQ(platform::store_client_setting("aspect ratio", "16:9"),
              platform::setting_state::STORED);
    EXPECT_EQ(platform::store_client_setting("background music", "on"),
              platform::setting_state::STORED);
}

TEST_F(ClientSettings, NamesAndValuesHaveLimits)
{
    serve();
    EXPECT_EQ(platform::store_client_setting("", "x"), platform::setting_state::REFUSED);
    EXPECT_EQ(platform::store_client_setting(std::string(256, 'n'), "x"),
              platform::setting_state::STORED);
    EXPECT_EQ(platform::store_client_setting(std::string(257, 'n'), "x"),
              platform::setting_state::REFUSED);
    EXPECT_EQ(platform::store_client_setting("value", std::string(16384, 'v')),
              platform::setting_state::STORED);
    EXPECT_EQ(platform::store_client_setting("value", std::string(16385, 'v')),
              platform::setting_state::REFUSED);
    EXPECT_EQ(platform::store_client_setting(std::string_view("a\0b", 3), "x"),
              platform::setting_state::REFUSED);
    EXPECT_EQ(platform::store_client_setting("a", std::string_view("x\0y", 3)),
              platform::setting_state::REFUSED);
    EXPECT_EQ(platform::store_client_setting("a", ""), platform::setting_state::STORED);
}

TEST_F(ClientSettings, NumberOfNewNamesIsLimited)
{
    serve();
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(platform::store_client_setting("name " + std::to_string(i), "x"),
                  platform::setting_state::STORED);
    }
    EXPECT_EQ(platform::store_client_setting("one more", "x"), platform::setting_state::REFUSED);
    EXPECT_EQ(shown("one more"), "(none)");
    EXPECT_EQ(platform::store_client_setting("name 7", "y"), platform::setting_state::STORED);
}

TEST_F(ClientSettings, HostileTextCannotForgeAnEntry)
{
    serve();
    ASSERT_EQ(platform::store_client_setting("a\nfile type = b", "c\nGUID = d = \x1B\xFF"),
              platform::setting_state::STORED);
    write_settings(later());
    platform::close_item();
    vexa_set_string(&vexa_file_type, nullptr);
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    ASSERT_EQ(metadata_v4_metadata_context_entry_count(vexa_metadata), 1U);
    const metadata_v4_entry* entry = metadata_v4_metadata_context_read_entry(vexa_metadata, 0);
    EXPECT_STREQ(entry->name, "a\nfile type = b");
    EXPECT_STREQ(entry->value, "c\nGUID = d = \x1B\xFF");
}

TEST_F(ClientSettings, FailedWriteIsRetriedAtIncreasingIntervals)
{
    serve();
    const unique_fd other(
        open(folder.path("meta/metadata.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
    ASSERT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::STORED);
    const uint64_t now_us = later();
    constexpr uint64_t lock_wait_us = 2'000'000; // each failing write takes as long
    EXPECT_NE(messages([&] { write_settings(now_us); }), "");
    EXPECT_EQ(messages([&] { write_settings(now_us + lock_wait_us + 1'999'999); }), "");
    EXPECT_NE(messages([&] { write_settings(now_us + lock_wait_us + 2'000'000); }), "");
    EXPECT_EQ(messages([&] { write_settings(now_us + 2 * lock_wait_us + 5'999'999); }), "");
    flock(other.get(), LOCK_UN);
    EXPECT_EQ(messages([&] { write_settings(now_us + 2 * lock_wait_us + 6'000'000); }), "");
    EXPECT_NE(stored().find("title = x\n"), std::string::npos);
}

TEST_F(ClientSettings, TerminationDoesNotLoseThem)
{
    serve();
    ASSERT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::STORED);
    DIE4 = 1;
    vexa_free_all();
    EXPECT_NE(stored().find("title = x\n"), std::string::npos);
}

// Without the lock there is no write, but the pending file belongs to this process.
TEST_F(ClientSettings, SettingsNotWrittenAtTheEndAreMergedByTheNextStart)
{
    serve();
    const unique_fd other(
        open(folder.path("meta/metadata.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
    ASSERT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::STORED);
    EXPECT_TRUE(messages(vexa_free_all)
                    .ends_with("What clients have set is taken over by the next start\n"));
    flock(other.get(), LOCK_UN);
    start_again();
    EXPECT_TRUE(vexa_do_write_metadata);
    EXPECT_EQ(shown("title"), "x");
}

TEST_F(ClientSettings, WithoutAnItemNothingIsStored)
{
    EXPECT_EQ(platform::store_client_setting("title", "x"), platform::setting_state::NOT_STORED);
    write_settings(later());
    platform::store_client_settings_now();
}

} // namespace
