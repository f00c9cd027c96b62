// The start of a run until the picture is examined, and every kind of run that ends early.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/printable_text.h"
#include "tests/support/worker.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";

class Start : public testing::Test {
protected:
    ended_worker run(const std::vector<std::string>& arguments)
    {
        return run_worker(home, {arguments});
    }

    worker_home home;
};

TEST_F(Start, HelpBeginsWithAnExampleAndEndsWithStatusOne)
{
    const ended_worker ended = run({"--help"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, HasSubstr("--file"));
    EXPECT_THAT(ended.printed, HasSubstr("--domain-limit"));
    EXPECT_THAT(ended.printed, EndsWith(" --oneshot\n --slow-decode\n"));
}

TEST_F(Start, BadCommandLinesEndWithStatusOneAndSayWhy)
{
    EXPECT_THAT(run({}).printed, StartsWith("File to play not specified. Use --file parameter\n"));
    EXPECT_EQ(run({picture}).printed, "Non-switch argument '" + picture + "'\n");
    EXPECT_THAT(run({"--no-such-switch"}).printed, StartsWith("Unknown switch 'no-such-switch'\n"));
    for (const std::vector<std::string>& words : {std::vector<std::string>{"--file"},
                                                  {"--", "x"},
                                                  {"-"},
                                                  {"--auto-shutdown", "soon"},
                                                  {"--domain-limit", "12Q"},
                                                  {"--aspect-ratio", "wide"}}) {
        EXPECT_EQ(run(words).status, 1) << words[0];
    }
}

TEST_F(Start, EmptyArgumentVectorIsAFailureWithoutACrash)
{
    worker::setting how;
    how.empty_arguments = true;
    EXPECT_EQ(run_worker(home, how).status, 1);
}

TEST_F(Start, MissingPictureIsNamed)
{
    const ended_worker ended = run({"--file", home.path("missing.jpg")});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, HasSubstr(home.path("missing.jpg")));
    EXPECT_THAT(ended.printed, HasSubstr("No such file"));
    EXPECT_THAT(ended.printed, EndsWith("Failed to obtain derived params\n"));
}

TEST_F(Start, UnusableFoldersAndSocketsAreNamed)
{
    const std::string plain_file = home.folder().write("plain", "text");
    const ended_worker no_metadir = run({"--file", picture, "--metadir", plain_file + "/below"});
    EXPECT_EQ(no_metadir.status, 1);
    EXPECT_THAT(no_metadir.printed, HasSubstr(plain_file));
    const std::string long_path = home.path(std::string(120, 's'));
    const ended_worker too_long = run({"--file", picture, "--sock", long_path});
    EXPECT_EQ(too_long.status, 1);
    EXPECT_THAT(too_long.printed, HasSubstr(long_path));
    const ended_worker not_a_socket = run({"--file", picture, "--sock", plain_file});
    EXPECT_NE(not_a_socket.printed.find(plain_file), std::string::npos);
    EXPECT_EQ(home.folder().read("plain"), "text");
}

TEST_F(Start, PictureThatIsNoRegularFileIsRefusedAtOnce)
{
    const std::string fifo = home.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(run({"--file", fifo}).status, 1);
    for (const char* type : {"image/jpeg", "image/png", "image/tiff", "image/gif", "image/webp"}) {
        for (const std::string& path : {fifo, std::string("/dev/zero"), home.folder().path(),
                                        std::string("/proc/self/status")}) {
            const ended_worker ended = run({"--file", path, "--file-type", type});
            EXPECT_EQ(ended.status, 1) << path << type;
        }
    }
}

TEST_F(Start, TemporaryCleanOnlyStopsAfterTheSettings)
{
    const ended_worker ended =
        run({"--file", picture, "--sock", home.path("s"), "--temp-clean-only"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.printed, EndsWith("   Sock: " + home.path("s") + "\n"));
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(Start, OneshotEndsAfterOneRound)
{
    const ended_worker ended = run({"--file", picture, "--oneshot"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.printed, HasSubstr("Oneshot\n"));
    EXPECT_TRUE(home.sockets().empty());
}

TEST_F(Start, AutoShutdownEndsTheRun)
{
    for (const char* seconds : {"0", "0.05"}) {
        const ended_worker ended = run({"--file", picture, "--auto-shutdown", seconds});
        EXPECT_EQ(ended.status, 0);
        EXPECT_THAT(ended.printed, HasSubstr("Auto terminate: " + picture + "\n"));
    }
}

// The codec's messages name the file, too.
TEST_F(Start, NamesArePrintedWithoutControlCharacters)
{
    const std::string name = "a\x1B[2J\x07\xC2\x9B\n\x9B\xFFgr\xC3\xBCn\\.tif";
    const std::string shown = "a\\x1B[2J\\x07\\xC2\\x9B\\x0A\\x9B\\xFFgr\xC3\xBCn\\.tif";
    std::filesystem::copy_file(STILLIMAGE_TEST_DATA "/tiff/ycbcr-jpeg-damaged.tif",
                               home.path(name));
    const ended_worker ended = run({"--file", home.path(name), "--auto-shutdown", "0"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(is_printable_text(ended.printed)) << ended.printed;
    EXPECT_THAT(ended.printed, HasSubstr("\n   File: " + home.path(shown) + "\n"));
    EXPECT_THAT(ended.printed, HasSubstr("\nAuto terminate: " + home.path(shown) + "\n"));
    EXPECT_THAT(ended.printed, HasSubstr("TIFF "));
    const ended_worker unknown = run({"--" + name});
    EXPECT_THAT(unknown.printed, StartsWith("Unknown switch '" + shown + "'\n"));
    EXPECT_TRUE(is_printable_text(unknown.printed)) << unknown.printed;
    const ended_worker missing = run({"--file", home.path(name + "missing")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(is_printable_text(missing.printed)) << missing.printed;
}

TEST_F(Start, LogReplacesStandardError)
{
    const std::string metadir = home.path("meta");
    const ended_worker ended =
        run({"--file", picture, "--metadir", metadir, "--stderr-to-log", "--oneshot"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.printed, Not(HasSubstr("Oneshot")));
    const std::string log = home.folder().read("meta/log");
    EXPECT_THAT(log, HasSubstr("bg=0\n"));
    EXPECT_THAT(log, HasSubstr("Oneshot\n"));
}

TEST_F(Start, LogIsNotWrittenThroughAPlantedLink)
{
    const std::string metadir = home.path("meta");
    std::filesystem::create_directory(metadir);
    const std::string victim = home.folder().write("victim", "mine");
    std::filesystem::create_symlink(victim, metadir + "/log");
    const ended_worker ended = run({"--file", picture, "--metadir", metadir, "--stderr-to-log"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, HasSubstr("Failed to redirect stderr\n"));
    EXPECT_EQ(home.folder().read("victim"), "mine");
}

TEST_F(Start, DiagnosticsAreNotWrittenIntoTheItemsFiles)
{
    const std::string metadir = home.path("meta");
    const std::string copy = home.path("copy.jpg");
    std::filesystem::copy_file(picture, copy);
    worker::setting how = {{"--file", copy, "--metadir", metadir, "--oneshot"}};
    how.stderr_closed = true;
    EXPECT_EQ(run_worker(home, how).status, 0);
    EXPECT_EQ(std::filesystem::file_size(copy), std::filesystem::file_size(picture));
    EXPECT_THAT(home.folder().read("meta/metadata"), Not(HasSubstr("Media item setting")));
}

TEST_F(Start, HostReceivesProgressAndReadiness)
{
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    worker::setting how = {
        {"--file", picture, "--status-fd", std::to_string(channel[1]), "--oneshot"}};
    EXPECT_EQ(run_worker(home, how).status, 0);
    close(channel[1]);
    std::string text(65536, '\0');
    text.resize(
        static_cast<size_t>(std::max<ssize_t>(0, read(channel[0], text.data(), text.size()))));
    close(channel[0]);
    EXPECT_THAT(text, StartsWith("{\"percent\": 0, \"text\": \"Decoding JPEG\"}\n"));
    EXPECT_THAT(text, EndsWith("{\"ready\": 1, \"text\": \"Ready to serve data\"}\n"));
}

TEST_F(Start, ClosedHostChannelDoesNotEndTheWorker)
{
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);
    close(channel[0]);
    worker::setting how = {
        {"--file", picture, "--status-fd", std::to_string(channel[1]), "--oneshot"}};
    EXPECT_EQ(run_worker(home, how).status, 0);
    close(channel[1]);
}

TEST_F(Start, ServiceManagerIsNotified)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", home.path("notify").c_str());
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    worker::setting how = {{"--file", picture, "--oneshot"},
                           {"NOTIFY_SOCKET=" + home.path("notify")}};
    EXPECT_EQ(run_worker(home, how).status, 0);
    std::string all;
    char message[4096];
    for (ssize_t got = 0; (got = recv(manager, message, sizeof message, MSG_DONTWAIT)) > 0;) {
        all.append(message, static_cast<size_t>(got)).append("\n");
    }
    close(manager);
    EXPECT_THAT(all, HasSubstr("READY=1"));
    EXPECT_THAT(all, HasSubstr("STATUS="));
    EXPECT_THAT(all, HasSubstr("STOPPING=1"));
}

TEST_F(Start, NamesWithHostileBytesAreServed)
{
    const std::string name = home.path("a\x1B[31m\n%n\xFF.jpg");
    std::filesystem::copy_file(picture, name);
    worker served(home, name);
    ASSERT_TRUE(served.wait_ready());
    std::string status;
    EXPECT_EQ(run_client(home, {served.socket(), "status"}, &status), 0);
    EXPECT_EQ(std::count(status.begin(), status.end(), '\n'), 1);
    EXPECT_EQ(status.find('\x1B'), std::string::npos);
    EXPECT_EQ(status.find('\xFF'), std::string::npos);
    EXPECT_EQ(run_client(home, {served.socket(), "quit"}), 0);
    EXPECT_EQ(served.wait_end(), 0);
}

TEST_F(Start, DaemonServesOnRelativePaths)
{
    std::filesystem::copy_file(picture, home.path("here.jpg"));
    worker::setting how = {{"--file", "here.jpg", "--sock", "here.sock", "--metadir", "meta",
                            "--daemon", "--no-autoshutdown"}};
    how.working_folder = home.folder().path();
    const ended_worker parent = run_worker(home, how);
    EXPECT_EQ(parent.status, 0);
    stillimage_client* client = nullptr;
    ASSERT_EQ(stillimage_connect(home.path("here.sock").c_str(), 30'000, &client), STILLIMAGE_OK)
        << stillimage_last_error(client) << parent.printed;
    EXPECT_EQ(stillimage_wait_ready(client, 0, 30'000), STILLIMAGE_OK);
    // A second worker on the same socket is still refused.
    const ended_worker second = run_worker(home, how);
    EXPECT_EQ(second.status, 1);
    const pid_t daemon_pid = stillimage_worker_pid(client);
    EXPECT_THAT(second.printed, HasSubstr("here.sock': already served by process " +
                                          std::to_string(daemon_pid) + "\n"));
    EXPECT_EQ(stillimage_quit(client, 30'000), STILLIMAGE_OK);
    stillimage_close(client);
    EXPECT_TRUE(eventually([&] { return kill(daemon_pid, 0) != 0; }));
    EXPECT_TRUE(home.sockets().empty());
}

} // namespace
