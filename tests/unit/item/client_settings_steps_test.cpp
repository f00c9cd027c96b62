// The item's file is written in steps, between which clients are served and set further values.
#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/child_process.h"
#include "tests/unit/item/client_settings_fixture.h"

namespace {

using failing_files::fate;
using item_test::ClientSettings;
using platform::list_owner;
using platform::setting_state;

class ClientSettingsInSteps : public ClientSettings {
protected:
    ClientSettingsInSteps()
    {
        mkdir(folder.path("meta").c_str(), 0700);
        for (int i = 0; i < 64; ++i) {
            entries += "entry " + std::to_string(i) + " = " + std::string(8000, 'x') + "\n";
        }
        folder.write("meta/metadata", entries);
        serve();
    }

    // Carries out this many steps of writing. False when nothing is being written any longer.
    bool write_steps(int steps)
    {
        for (int i = 0; i < steps; ++i) {
            platform::store_waiting_settings(now_us);
            if (!platform::settings_are_written()) {
                return false;
            }
            now_us += 100'000;
        }
        return true;
    }

    // A second later the value is due.
    void set(const char* name, const char* value)
    {
        ASSERT_EQ(platform::store_client_setting(name, value), setting_state::STORED);
        now_us = std::max(now_us, later());
    }

    // What follows the first entries in the item's file.
    std::string added() const
    {
        const std::string text = stored();
        return text.starts_with(entries) ? text.substr(entries.size()) : "(not after the entries)";
    }

    std::string loaded(const char* name) const
    {
        const list_owner list(platform::load_metadata(platform::opened_item()->store));
        const metadata_v4_entry* entry = platform::find_item_entry(list.get(), name);
        return entry != nullptr ? entry->value : "(none)";
    }

    std::string entries;
    uint64_t now_us = 0;
};

size_t largest_write = 0;
int writes = 0;

// Half a mebibyte takes several steps, none of which writes much more than 64 KiB.
TEST_F(ClientSettingsInSteps, NoStepWritesMuchAtOnce)
{
    static platform::file_operations counted;
    counted = platform::system_file_operations;
    counted.write = [](int fd, const void* data, size_t size) {
        largest_write = std::max(largest_write, size);
        ++writes;
        return platform::system_file_operations.write(fd, data, size);
    };
    set("title", "x");
    operations(counted);
    largest_write = 0;
    for (int steps = 0; write_steps(1); ++steps) {
        ASSERT_LE(writes, steps + 2);
    }
    EXPECT_GT(writes, 8);
    EXPECT_LE(largest_write, size_t{80'000});
    EXPECT_EQ(added(), "title = x\n");
    EXPECT_EQ(names_in_meta(), (std::vector<std::string>{"metadata", "metadata.lock"}));
}

// Whenever the process dies, the value of the write and the later one are both there.
TEST_F(ClientSettingsInSteps, DeathAtAnyStepLosesNothing)
{
    set("one", "1");
    bool more = true;
    for (int steps = 1; more; ++steps) {
        const int result = run_in_child([&] {
            const bool goes_on = write_steps(steps);
            set("two", "2");
            if (!goes_on) {
                return 7;
            }
            write_steps(1);
            kill(getpid(), SIGKILL);
            return 1;
        });
        more = result != 7;
        ASSERT_TRUE(result == 7 || result == -SIGKILL) << result;
        EXPECT_EQ(loaded("one"), "1") << steps;
        EXPECT_EQ(loaded("two"), "2") << steps;
        EXPECT_EQ(loaded("entry 63"), std::string(8000, 'x')) << steps;
    }
}

TEST_F(ClientSettingsInSteps, ValuesSetMeanwhileAreWrittenASecondLater)
{
    set("one", "1");
    set("two", "early");
    ASSERT_TRUE(write_steps(3));
    set("two", "late");
    EXPECT_TRUE(folder.has("meta/metadata.pending-2"));
    EXPECT_FALSE(write_steps(1000));
    EXPECT_EQ(added(), "one = 1\ntwo = early\n");
    EXPECT_FALSE(folder.has("meta/metadata.pending-1"));
    EXPECT_EQ(loaded("two"), "late");
    EXPECT_FALSE(write_steps(1)); // not yet
    now_us += 1'000'000;
    EXPECT_FALSE(write_steps(1000));
    EXPECT_EQ(added(), "one = 1\ntwo = late\n");
    EXPECT_EQ(names_in_meta(), (std::vector<std::string>{"metadata", "metadata.lock"}));
}

TEST_F(ClientSettingsInSteps, FileChangedMeanwhileIsReadAgain)
{
    set("one", "1");
    ASSERT_TRUE(write_steps(4));
    folder.write("meta/metadata", "by hand = 1\n");
    EXPECT_FALSE(write_steps(1000));
    EXPECT_EQ(stored(), "by hand = 1\none = 1\n");
    EXPECT_EQ(names_in_meta(), (std::vector<std::string>{"metadata", "metadata.lock"}));
}

TEST_F(ClientSettingsInSteps, FailedWriteKeepsAllValuesForTheNext)
{
    use_failing_files();
    set("one", "1");
    ASSERT_TRUE(write_steps(4));
    set("two", "2");
    failing_files::arm(1, fate::FAIL, EIO);
    messages([&] { EXPECT_FALSE(write_steps(1000)); });
    EXPECT_EQ(added(), "");
    EXPECT_EQ(platform::client_setting_state("one"), setting_state::STORED);
    EXPECT_EQ(loaded("one") + loaded("two"), "12");
    now_us += 10'000'000;
    EXPECT_FALSE(write_steps(1000));
    EXPECT_EQ(added(), "one = 1\ntwo = 2\n");
    EXPECT_EQ(names_in_meta(), (std::vector<std::string>{"metadata", "metadata.lock"}));
}

TEST_F(ClientSettingsInSteps, FolderRemovedMeanwhileIsReported)
{
    set("one", "1");
    ASSERT_TRUE(write_steps(4));
    std::filesystem::remove_all(folder.path("meta"));
    messages([&] { EXPECT_FALSE(write_steps(1000)); });
    EXPECT_EQ(platform::client_setting_state("one"), setting_state::NOT_STORED);
}

// Until the write is done, there is no room for a further value.
TEST_F(ClientSettingsInSteps, ValueThatWaitsForRoomIsStoredWithTheWrite)
{
    constexpr int enough = 2000; // for 16 MiB
    setting_state state = setting_state::STORED;
    for (int i = 0; i < enough && state == setting_state::STORED; ++i) {
        state =
            platform::store_client_setting("title", std::string(16'000, 'v') + std::to_string(i));
    }
    ASSERT_EQ(state, setting_state::WAITS);
    now_us = later();
    ASSERT_TRUE(write_steps(3));
    const std::string large(16'000, '2');
    EXPECT_EQ(platform::store_client_setting("two", large), setting_state::WAITS);
    EXPECT_FALSE(write_steps(1000));
    EXPECT_EQ(platform::client_setting_state("title"), setting_state::STORED);
    EXPECT_EQ(platform::client_setting_state("two"), setting_state::STORED);
    EXPECT_EQ(loaded("two"), large);
}

TEST_F(ClientSettingsInSteps, EndOfTheProcessFinishesTheWrite)
{
    set("one", "1");
    ASSERT_TRUE(write_steps(3));
    set("two", "2");
    vexa_free_all();
    EXPECT_EQ(added(), "one = 1\ntwo = 2\n");
    EXPECT_EQ(names_in_meta(), (std::vector<std::string>{"metadata", "metadata.lock"}));
}

TEST_F(ClientSettingsInSteps, AbandonedWriteLeavesOnlyWhatIsPending)
{
    set("one", "1");
    ASSERT_TRUE(write_steps(4));
    platform::reset_client_settings();
    EXPECT_EQ(names_in_meta(),
              (std::vector<std::string>{"metadata", "metadata.lock", "metadata.pending-1"}));
    EXPECT_EQ(loaded("one"), "1");
}

TEST_F(ClientSettingsInSteps, ValuesOfADeadProcessAreMergedFirst)
{
    EXPECT_EQ(run_in_child([&] {
                  set("dead", "1");
                  set("both", "dead");
                  _exit(0);
                  return 0;
              }),
              0);
    set("both", "live");
    EXPECT_FALSE(write_steps(1000));
    EXPECT_EQ(added(), "both = live\ndead = 1\n");
    EXPECT_EQ(names_in_meta(), (std::vector<std::string>{"metadata", "metadata.lock"}));
}

} // namespace
