#include <csignal>
#include <cstdlib>
#include <functional>

#include <gmock/gmock.h>
#include <json11.hpp>

#include "bin/quickidle.h"
#include "bin/serve/client_context.h"
#include "bin/serve/status_json.h"
#include "bin/serve/video_reference.h"
#include "bin/vexa_stillimage.h"
#include "platform/clients.h"
#include "platform/cnb.h"
#include "platform/document.h"
#include "platform/settings.h"
#include "tests/unit/run/run_fixture.h"

namespace {

using testing::HasSubstr;

const std::string help_screen = "(standard help)\n --oneshot\n --slow-decode\n";

class StartUp : public RunFixture {
protected:
    void SetUp() override
    {
        RunFixture::SetUp();
        scripted::set_picture("0123456789abcdef", 16);
    }
};

TEST_F(StartUp, WritesTheTwoPlatformSettingsFirst)
{
    scripted::plan.init_argv_fails = true;
    EXPECT_EQ(start({}), 1);
    EXPECT_EQ(cnb_default_buffer_level, 0);
    EXPECT_TRUE(vexa_auto_socket_create);
    EXPECT_EQ(printed(), "");
}

TEST_F(StartUp, PositionalPathIsRefusedBeforeTheMissingFileIsNoticed)
{
    EXPECT_EQ(start({"picture.jpg"}), 1);
    EXPECT_EQ(printed(), "Non-switch argument 'picture.jpg'\n");
}

TEST_F(StartUp, BadStandardSwitchShowsTheHelp)
{
    EXPECT_EQ(start({"--bad-value"}), 1);
    EXPECT_EQ(printed(), help_screen);
}

TEST_F(StartUp, UnknownSwitchIsNamedAndTheHelpShown)
{
    EXPECT_EQ(start({"--file", "p", "--Slow-Decode"}), 1);
    EXPECT_EQ(printed(), "Unknown switch 'Slow-Decode'\n" + help_screen);
}

TEST_F(StartUp, HelpEndsWithStatusOne)
{
    for (const char* word : {"--help", "-h"}) {
        EXPECT_EQ(start({word}), 1);
        EXPECT_EQ(printed(), help_screen);
    }
}

TEST_F(StartUp, EmptySwitchWordIsUnknown)
{
    EXPECT_EQ(start({"--"}), 1);
    EXPECT_EQ(printed(), "Unknown switch ''\n" + help_screen);
}

TEST_F(StartUp, WithdrawnSwitchesOnlyCauseAWarning)
{
    EXPECT_EQ(start({"--d-merged", "--file", "p"}), go_on);
    EXPECT_EQ(printed().find("d-merged is no longer supported. rendering mode removed.\n"), 0U);
    EXPECT_EQ(start({"--d-all-scanlines", "--file", "p"}), go_on);
    EXPECT_EQ(printed().find("d-all-scanlines is no longer supported. rendering mode removed.\n"),
              0U);
}

TEST_F(StartUp, MergedScanlinesSwitchIsAcceptedSilently)
{
    EXPECT_EQ(start({"--d-merged-s", "--file", "p"}), go_on);
    EXPECT_EQ(printed().find("bg="), 0U);
}

TEST_F(StartUp, SlowDecodeIsStored)
{
    EXPECT_EQ(start({"--slow-decode", "--file", "p"}), go_on);
    EXPECT_TRUE(slow_decode);
}

TEST_F(StartUp, MissingFileShowsTheHelp)
{
    EXPECT_EQ(start({}), 1);
    EXPECT_EQ(printed(), "File to play not specified. Use --file parameter\n" + help_screen);
}

struct failing_product {
    bool scripted::script::*fault;
    const char* message;
};

TEST_F(StartUp, EachMissingPlatformObjectHasItsMessage)
{
    const failing_product products[] = {
        {&scripted::script::derived_params_fail, "Failed to obtain derived params\n"},
        {&scripted::script::join_domain_fails, "Failed to join CNB domain\n"},
        {&scripted::script::no_metadir, "Library failed to derive metadata dir\n"},
        {&scripted::script::no_sock, "Library failed to make socket path or accept a path\n"},
        {&scripted::script::no_meta, "No meta object\n"},
        {&scripted::script::no_metadata, "No metadata object\n"},
    };
    for (const failing_product& product : products) {
        scripted::plan = {};
        scripted::plan.*product.fault = true;
        EXPECT_EQ(start({"--file", "p"}), 1);
        EXPECT_EQ(printed(), product.message);
    }
}

TEST_F(StartUp, PlatformObjectsAreCheckedInOrder)
{
    scripted::plan.no_metadir = scripted::plan.no_sock = scripted::plan.no_meta = true;
    start({"--file", "p"});
    EXPECT_EQ(printed(), "Library failed to derive metadata dir\n");
}

TEST_F(StartUp, LogIsRedirectedOnlyOnRequest)
{
    EXPECT_EQ(start({"--file", "p"}), go_on);
    EXPECT_EQ(calls("vexa_redirect_stderr_to_logfile"), 0);
    EXPECT_EQ(start({"--file", "p", "--stderr-to-log"}), go_on);
    EXPECT_EQ(calls("vexa_redirect_stderr_to_logfile"), 1);
}

TEST_F(StartUp, FailingRedirectionEndsTheProcess)
{
    scripted::plan.redirect_fails = true;
    EXPECT_EQ(start({"--file", "p", "--stderr-to-log"}), 1);
    EXPECT_EQ(printed(), "Failed to redirect stderr\n");
}

TEST_F(StartUp, PrintsTheSettings)
{
    vexa_background_music = 1;
    EXPECT_EQ(start({"--file", "some picture.jpg"}), go_on);
    EXPECT_EQ(printed(), "bg=1\nMedia item setting:\n   File: some picture.jpg\n"
                         "   Meta: metadir\n   Sock: sock\n");
}

TEST_F(StartUp, NamesArePrintedWithoutControlCharacters)
{
    EXPECT_EQ(start({"--file", "a\x1B[2Jb\nc\xC2\x9B gr\xC3\xBCn\\ \x9B\xFF.jpg"}), go_on);
    EXPECT_THAT(printed(),
                HasSubstr("\n   File: a\\x1B[2Jb\\x0Ac\\xC2\\x9B gr\xC3\xBCn\\ \\x9B\\xFF.jpg\n"));
}

TEST_F(StartUp, UnknownSwitchIsPrintedWithoutControlCharacters)
{
    EXPECT_EQ(start({"--a\x1B]0;b\x07 gr\xC3\xBCn\\"}), 1);
    EXPECT_EQ(printed(), "Unknown switch 'a\\x1B]0;b\\x07 gr\xC3\xBCn\\'\n" + help_screen);
    EXPECT_EQ(start({"a\x1B[2J"}), 1);
    EXPECT_THAT(printed(), HasSubstr("Non-switch argument 'a\\x1B[2J'\n"));
}

TEST_F(StartUp, FailingSelfTestDoesNotStopTheStart)
{
    scripted::plan.self_test_fails = true;
    EXPECT_EQ(start({"--file", "p"}), go_on);
    EXPECT_EQ(printed().find("bg=0\nSelf-test failed [VEXA]\nMedia item setting:\n"), 0U);
}

TEST_F(StartUp, RegistersTheCallbacks)
{
    ASSERT_EQ(start({"--file", "p"}), go_on);
    EXPECT_EQ(vexa_client_contexts.new_client_context, &my_new_client_context);
    EXPECT_EQ(vexa_client_contexts.new_video_reference, &stillimage_new_video_reference);
    EXPECT_EQ(on_vexa_client_disconnect, &my_client_disconnect_handler);
    EXPECT_EQ(vexa_on_metadata_set, &my_on_metadata_set);
    EXPECT_EQ(vexa_on_json_build, &my_custom_json_build);
    EXPECT_EQ(calls("cnb_alloc_init"), 1);
}

TEST_F(StartUp, TemporaryCleanOnlyEndsWithStatusZeroAndFreesNothing)
{
    EXPECT_EQ(start({"--file", "p", "--temp-clean-only"}), 0);
    EXPECT_EQ(calls("vexa_free_all"), 0);
    EXPECT_NE(printed().find("   Sock: sock\n"), std::string::npos);
}

TEST_F(StartUp, UnopenedPictureBreaksAnInvariant)
{
    scripted::set_picture_descriptor(-1);
    leave_stderr();
    EXPECT_EXIT(start({"--file", "p"}), testing::KilledBySignal(SIGABRT),
                "bin/vexa_stillimage: .*vexa_meta->file_fd >= 0");
}

TEST_F(StartUp, ConfinesTheProcessOnceAtTheEnd)
{
    ASSERT_EQ(start({"--file", "p", "--stderr-to-log"}), go_on);
    EXPECT_EQ(calls("confine_process"), 1);
    EXPECT_EQ(scripted::log.calls.back(), "confine_process");
}

TEST_F(StartUp, RefusedConfinementEndsTheRun)
{
    scripted::plan.confinement_is_refused = true;
    EXPECT_EQ(start({"--file", "p"}), 1);
}

TEST_F(StartUp, ShortRunsAreNotConfined)
{
    start({"--file", "p", "--temp-clean-only"});
    scripted::plan.no_metadata = true;
    start({"--file", "p"});
    EXPECT_EQ(calls("confine_process"), 0);
}

TEST_F(StartUp, NoHandlerIsInstalledWhenTheStartFails)
{
    signal(SIGTERM, SIG_DFL);
    scripted::plan.no_metadata = true;
    start({"--file", "p"});
    EXPECT_EQ(signal(SIGTERM, SIG_DFL), SIG_DFL);
}

} // namespace
