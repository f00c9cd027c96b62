#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/run_state.h"
#include "platform/settings.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/item/switches.h"
#include "platform/start_up.h"
#include "platform/status.h"
#include "tests/support/item_fixture.h"

namespace {

using item_test::lines_of;
using item_test::make_pipe;

class Switches : public item_test::ItemFixture {
protected:
    // The lines printed for an invalid command line.
    static std::vector<std::string> refusal_of(const std::vector<std::string>& arguments)
    {
        int result = 0;
        const std::string text = messages([&] { result = take(arguments); });
        EXPECT_EQ(result, -1);
        return lines_of(text);
    }
};

// --- the vector ---------------------------------------------------------------------------------

TEST_F(Switches, EmptyVectorIsRefused)
{
    char* none[] = {nullptr};
    EXPECT_NE(vexa_init_argv(0, none), 0);
    EXPECT_NE(vexa_init_argv(1, none), 0);
    EXPECT_NE(vexa_init_argv(0, nullptr), 0);
    EXPECT_NE(vexa_init_argv(1, nullptr), 0);
    EXPECT_NE(vexa_init_argv(-1, none), 0);
    EXPECT_EQ(vexa_next_arg(), nullptr);
}

TEST_F(Switches, ArgumentsAreReturnedInOrderThenNull)
{
    char name[] = "stillimage";
    char first[] = "a";
    char second[] = "";
    char* vector[] = {name, first, second, nullptr};
    ASSERT_EQ(vexa_init_argv(3, vector), 0);
    EXPECT_EQ(vexa_next_arg(), first);
    EXPECT_EQ(vexa_next_arg(), second);
    EXPECT_EQ(vexa_next_arg(), nullptr);
    EXPECT_EQ(vexa_next_arg(), nullptr);
}

TEST_F(Switches, NextArgumentBeforeAnyVectorIsNull)
{
    EXPECT_EQ(vexa_next_arg(), nullptr);
}

// The word after the dashes, or "(none)".
std::string word_of(const char* argument)
{
    std::string text = argument;
    char* word = text.data();
    return vexa_argv_is_switch(&word) != 0 ? word : "(none)";
}

TEST_F(Switches, OneOrTwoDashesAreStripped)
{
    EXPECT_EQ(word_of("-file"), "file");
    EXPECT_EQ(word_of("--file"), "file");
    EXPECT_EQ(word_of("--file=x"), "file=x");
    EXPECT_EQ(word_of("---file"), "-file");
    EXPECT_EQ(word_of("-"), "");
    EXPECT_EQ(word_of("--"), "");
    EXPECT_EQ(word_of("file"), "(none)");
    EXPECT_EQ(word_of(""), "(none)");
    EXPECT_EQ(word_of("a--file"), "(none)");
}

TEST_F(Switches, OtherWordsAreLeftToTheProgram)
{
    for (const char* text : {"", "slow-decode", "help", "h", "File", "fil", "files", "=", "=x",
                             "-file", "file\xFF", "slow-decode=1"}) {
        std::string word = text;
        EXPECT_EQ(vexa_argv_std_handle_switch(word.data()), 0) << text;
    }
}

// --- each switch --------------------------------------------------------------------------------

TEST_F(Switches, WithoutSwitchesTheDefaultsApply)
{
    ASSERT_EQ(take({}), 0);
    EXPECT_EQ(vexa_file, nullptr);
    EXPECT_EQ(vexa_file_metadir, nullptr);
    EXPECT_EQ(vexa_sock, nullptr);
    EXPECT_EQ(vexa_file_type, nullptr);
    EXPECT_EQ(platform::from_switches.domain, "default");
    EXPECT_EQ(platform::from_switches.domain_limit, 0U);
    EXPECT_EQ(auto_shutdown_delay_initial, 60'000'000U);
    EXPECT_TRUE(vexa_metadata_may_update);
    EXPECT_EQ(vexa_aspect_ratio.numerator, 0);
    EXPECT_EQ(vexa_aspect_ratio.denominator, 0);
    EXPECT_EQ(vexa_background_music, 0);
}

TEST_F(Switches, ValueFollowsAsAWordOrAfterAnEqualsSign)
{
    ASSERT_EQ(take({"--file", "a.png"}), 0);
    EXPECT_STREQ(vexa_file, "a.png");
    ASSERT_EQ(take({"--file=b=c.png"}), 0);
    EXPECT_STREQ(vexa_file, "b=c.png");
    ASSERT_EQ(take({"-file", "--oneshot"}), 0);
    EXPECT_STREQ(vexa_file, "--oneshot");
    EXPECT_FALSE(vexa_oneshot);
}

TEST_F(Switches, LastOccurrenceCounts)
{
    ASSERT_EQ(take({"--file", "a.png", "--file", "b.png"}), 0);
    EXPECT_STREQ(vexa_file, "b.png");
}

TEST_F(Switches, TextsAreStored)
{
    ASSERT_EQ(take({"--file", "f", "--metadir", "m", "--sock", "s", "--file-type", "image/png"}),
              0);
    EXPECT_STREQ(vexa_file, "f");
    EXPECT_STREQ(vexa_file_metadir, "m");
    EXPECT_STREQ(vexa_sock, "s");
    EXPECT_STREQ(vexa_file_type, "image/png");
    EXPECT_TRUE(platform::from_switches.file_type_given);
}

TEST_F(Switches, EachFlagSetsItsVariable)
{
    const struct {
        const char* word;
        bool* flag;
    } flags[] = {
        {"--oneshot", &vexa_oneshot},
        {"--daemon", &vexa_daemon},
        {"--identify-only", &vexa_identify_only},
        {"--create-meta", &vexa_create_meta},
        {"--temp-clean-only", &vexa_temp_clean_only},
        {"--no-autoshutdown", &vexa_no_autoshutdown},
        {"--stderr-to-log", &vexa_stderr_to_log},
        {"--force-update-metadata", &vexa_force_update_metadata},
    };
    for (const auto& given : flags) {
        platform::reset_settings();
        ASSERT_EQ(take({given.word}), 0) << given.word;
        for (const auto& other : flags) {
            EXPECT_EQ(*other.flag, other.flag == given.flag) << given.word << " " << other.word;
        }
        EXPECT_TRUE(vexa_metadata_may_update) << given.word;
    }
}

TEST_F(Switches, MetadataUpdateCanBeSwitchedOff)
{
    ASSERT_EQ(take({"--no-metadata-update"}), 0);
    EXPECT_FALSE(vexa_metadata_may_update);
}

TEST_F(Switches, ModesThatEndEarlyDoNotServe)
{
    EXPECT_TRUE(platform::mode_serves());
    for (const char* word : {"--identify-only", "--create-meta", "--temp-clean-only"}) {
        platform::reset_settings();
        ASSERT_EQ(take({word}), 0);
        EXPECT_FALSE(platform::mode_serves()) << word;
    }
}

TEST_F(Switches, DomainAndLimitAreStored)
{
    ASSERT_EQ(take({"--domain", "stage.left", "--domain-limit", "512M"}), 0);
    EXPECT_EQ(platform::from_switches.domain, "stage.left");
    EXPECT_EQ(platform::from_switches.domain_limit, uint64_t{512} << 20);
}

TEST_F(Switches, AutoShutdownIsStoredInMicroseconds)
{
    ASSERT_EQ(take({"--auto-shutdown", "0"}), 0);
    EXPECT_EQ(auto_shutdown_delay_initial, 0U);
    ASSERT_EQ(take({"--auto-shutdown=1.5"}), 0);
    EXPECT_EQ(auto_shutdown_delay_initial, 1'500'000U);
    ASSERT_EQ(take({"--auto-shutdown=99999999999999999999"}), 0);
    EXPECT_EQ(auto_shutdown_delay_initial, UINT64_MAX);
}

TEST_F(Switches, AspectRatioAndMusicAreStoredAndMarkedAsGiven)
{
    ASSERT_EQ(take({"--aspect-ratio", "16:9", "--background-music", "on"}), 0);
    EXPECT_EQ(vexa_aspect_ratio.numerator, 16);
    EXPECT_EQ(vexa_aspect_ratio.denominator, 9);
    EXPECT_EQ(vexa_background_music, 1);
    EXPECT_TRUE(platform::from_switches.aspect_ratio_given);
    EXPECT_TRUE(platform::from_switches.background_music_given);
    ASSERT_EQ(take({"--background-music=off"}), 0);
    EXPECT_EQ(vexa_background_music, 0);
}

TEST_F(Switches, StatusDescriptorIsDuplicatedAtOnce)
{
    item_test::pipe_pair pipe = make_pipe();
    ASSERT_EQ(take({"--status-fd", std::to_string(pipe.writer.get())}), 0);
    pipe.writer.reset();
    vexa_status_write(40, "Decoding PNG");
    EXPECT_EQ(item_test::read_waiting(pipe.reader.get()),
              "{\"percent\": 40, \"text\": \"Decoding PNG\"}\n");
}

// --- refusals -----------------------------------------------------------------------------------

TEST_F(Switches, MissingValueIsReportedOnOneLine)
{
    for (const char* word :
         {"--file", "--metadir", "--sock", "--file-type", "--domain", "--domain-limit",
          "--auto-shutdown", "--aspect-ratio", "--background-music", "--status-fd"}) {
        EXPECT_EQ(refusal_of({word}), std::vector{std::string(word) + ": a value is missing"});
    }
}

TEST_F(Switches, InvalidValueIsReportedOnOneLineWithWhatIsExpected)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"--file=", "--file '': not a path"},
        {"--metadir=", "--metadir '': not a path"},
        {"--sock=", "--sock '': not a path"},
        {"--file-type=", "--file-type '': not a name"},
        {"--domain=.x", "--domain '.x': not a name of 1 to 64 bytes without '/', no '.' first"},
        {"--domain=a/b", "--domain 'a/b': not a name of 1 to 64 bytes without '/', no '.' first"},
        {"--domain-limit=12Q",
         "--domain-limit '12Q': not a size such as 512M, 4G or a number of bytes"},
        {"--auto-shutdown=-1", "--auto-shutdown '-1': not a number of seconds such as 60 or 0.5"},
        {"--aspect-ratio=16x9", "--aspect-ratio '16x9': not a ratio such as 16:9, or 0:0"},
        {"--aspect-ratio=16:0", "--aspect-ratio '16:0': not a ratio such as 16:9, or 0:0"},
        {"--background-music=loud", "--background-music 'loud': not on or off"},
        {"--status-fd=x", "--status-fd 'x': not the number of a descriptor open for writing"},
        {"--status-fd=99999",
         "--status-fd '99999': not the number of a descriptor open for writing"},
        {"--oneshot=1", "--oneshot '1': this switch takes no value"},
        {"--oneshot=", "--oneshot '': this switch takes no value"},
    };
    for (const auto& [argument, line] : cases) {
        EXPECT_EQ(refusal_of({argument}), std::vector{line});
    }
    EXPECT_FALSE(vexa_oneshot);
}

TEST_F(Switches, HostileValueStaysOnOneLineAndIsNoFormat)
{
    const std::vector<std::string> lines = refusal_of({"--domain-limit", "%n%s\x1B[2J\n\xFF"});
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0], "--domain-limit '%n%s\\x1B[2J\\x0A\\xFF': not a size such as 512M, 4G or a "
                        "number of bytes");
}

TEST_F(Switches, ReadOnlyDescriptorIsRefusedAsStatusChannel)
{
    const item_test::pipe_pair pipe = make_pipe();
    const std::string number = std::to_string(pipe.reader.get());
    EXPECT_EQ(refusal_of({"--status-fd", number}),
              std::vector{"--status-fd '" + number +
                          "': not the number of a descriptor open for writing"});
}

// --- help ---------------------------------------------------------------------------------------

TEST_F(Switches, HelpStartsWithAnExample)
{
    const std::vector<std::string> lines = lines_of(messages(vexa_std_help));
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "usage: stillimage --file PICTURE [SWITCH [VALUE]]...");
    EXPECT_EQ(lines[1], "example: stillimage --file photo.jpg --no-autoshutdown");
}

TEST_F(Switches, HelpShowsEachSwitchWithItsDefault)
{
    const std::string help = messages(vexa_std_help);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {" --file PATH ", "[none]"},
        {" --metadir DIR ", "[" + state_folder() + "/STEM-HASH]"},
        {" --sock PATH ", "[" + runtime_folder() + "/STEM-HASH.sock]"},
        {" --file-type NAME ", "[from the metadata]"},
        {" --domain NAME ", "[default]"},
        {" --domain-limit SIZE ", "[half of the memory]"},
        {" --auto-shutdown SECONDS ", "[60]"},
        {" --no-autoshutdown ", "[off]"},
        {" --oneshot ", "[off]"},
        {" --daemon ", "[off]"},
        {" --identify-only ", "[off]"},
        {" --create-meta ", "[off]"},
        {" --temp-clean-only ", "[off]"},
        {" --stderr-to-log ", "[off]"},
        {" --force-update-metadata ", "[off]"},
        {" --no-metadata-update ", "[metadata may be updated]"},
        {" --aspect-ratio N:D ", "[from the metadata]"},
        {" --background-music on|off ", "[from the metadata]"},
        {" --core-files ", "[off]"},
        {" --require-confinement ", "[off]"},
        {" --status-fd N ", "[none]"},
    };
    size_t found = 0;
    for (const std::string& line : lines_of(help)) {
        for (const auto& [begin, end] : cases) {
            if (line.starts_with(begin)) {
                EXPECT_TRUE(line.ends_with(end)) << line;
                ++found;
            }
        }
    }
    EXPECT_EQ(found, cases.size());
    EXPECT_EQ(platform::standard_switch_count, cases.size());
}

} // namespace
