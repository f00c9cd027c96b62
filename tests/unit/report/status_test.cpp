#include <pty.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json11.hpp>

#include "platform/run_state.h"
#include "platform/standalone/report/document.h"
#include "platform/standalone/report/status.h"
#include "platform/status.h"
#include "tests/support/environment.h"
#include "tests/support/item_fixture.h"
#include "wire/utf8.h"

namespace {

using item_test::lines_of;
using item_test::make_pipe;
using item_test::pipe_pair;
using item_test::read_waiting;
using item_test::replaced_stderr;

class Status : public item_test::ItemFixture {
protected:
    Status() { EXPECT_TRUE(platform::open_status_channel(pipe.writer.get())); }

    std::string received() const { return read_waiting(pipe.reader.get()); }

    const pipe_pair pipe = make_pipe();
};

TEST_F(Status, IsEmptyAtProgramStart)
{
    EXPECT_EQ(platform::progress_percent(), 0);
    EXPECT_EQ(platform::progress_text(), "");
    EXPECT_EQ(platform::ready_state(), 0);
    EXPECT_FALSE(vexa_ready);
}

TEST_F(Status, OnlyChangesAreWritten)
{
    for (int row = 0; row < 1000; ++row) {
        vexa_status_write(row / 500, "Decoding PNG");
    }
    vexa_status_write(1, "Decoding GIF");
    EXPECT_EQ(received(), "{\"percent\": 0, \"text\": \"Decoding PNG\"}\n"
                          "{\"percent\": 1, \"text\": \"Decoding PNG\"}\n"
                          "{\"percent\": 1, \"text\": \"Decoding GIF\"}\n");
    EXPECT_EQ(platform::progress_percent(), 1);
    EXPECT_EQ(platform::progress_text(), "Decoding GIF");
}

TEST_F(Status, GrowingTextIsAChange)
{
    vexa_status_write(5, "a");
    vexa_status_write(5, "ab");
    vexa_status_write(5, "a");
    EXPECT_EQ(lines_of(received()).size(), 3U);
}

TEST_F(Status, EqualTextInOtherMemoryIsNoChange)
{
    std::string text = "Decoding";
    vexa_status_write(5, text.c_str());
    std::string copy = text;
    vexa_status_write(5, copy.c_str());
    text = "Composing";
    vexa_status_write(5, text.c_str());
    EXPECT_EQ(lines_of(received()).size(), 2U);
}

TEST_F(Status, NumbersOutOfRangeAreClamped)
{
    vexa_status_write(200, "x");
    EXPECT_EQ(platform::progress_percent(), 100);
    vexa_status_write(-5, "x");
    EXPECT_EQ(platform::progress_percent(), -1);
}

TEST_F(Status, NullTextIsEmpty)
{
    vexa_status_write(5, nullptr);
    vexa_ready_write(1, nullptr);
    EXPECT_EQ(received(), "{\"percent\": 5, \"text\": \"\"}\n{\"ready\": 1, \"text\": \"\"}\n");
}

TEST_F(Status, FinalReadinessMakesFramesAvailable)
{
    vexa_ready_write(1, "Ready to serve data");
    EXPECT_TRUE(vexa_ready);
    EXPECT_EQ(platform::ready_state(), 1);
    EXPECT_EQ(platform::progress_percent(), 100);
    EXPECT_EQ(platform::progress_text(), "Ready to serve data");
    EXPECT_EQ(received(), "{\"ready\": 1, \"text\": \"Ready to serve data\"}\n");
}

TEST_F(Status, ProvisionalReadinessMakesFramesAvailableToo)
{
    vexa_status_write(14, "Decoding PNG");
    vexa_ready_write(-1, "Provisional image ready");
    EXPECT_TRUE(vexa_ready);
    EXPECT_EQ(platform::ready_state(), -1);
    EXPECT_EQ(platform::progress_percent(), 14);
    vexa_ready_write(1, "Ready to serve data");
    EXPECT_EQ(platform::ready_state(), 1);
}

TEST_F(Status, SameReadinessIsReportedOnce)
{
    vexa_ready_write(1, "Ready to serve data");
    vexa_ready_write(1, "Ready to serve data");
    EXPECT_EQ(lines_of(received()).size(), 1U);
}

TEST_F(Status, HostileTextIsOneLineOfValidJson)
{
    vexa_status_write(1, "a\x1B[2J\n\"\\%n\xFF\xE2\x82\xAC");
    const std::string line = received();
    EXPECT_EQ(lines_of(line).size(), 1U);
    std::string error;
    EXPECT_EQ(json11::Json::parse(line, error)["text"].string_value(),
              "a\\x1B[2J\\x0A\"\\\\%n\\xFF\xE2\x82\xAC");
    EXPECT_EQ(error, "");
}

TEST_F(Status, TooLongTextIsTruncatedBetweenCharacters)
{
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += "\xE2\x82\xAC";
    }
    vexa_status_write(1, text.c_str());
    EXPECT_EQ(platform::progress_text().size(), 510U);
    EXPECT_TRUE(wire::is_utf8(platform::progress_text()));
    vexa_status_write(1, text.c_str());
    EXPECT_EQ(lines_of(received()).size(), 1U);
}

TEST_F(Status, SlowHostGetsReadinessLater)
{
    item_test::fill(pipe);
    vexa_status_write(99, "Decoding PNG");
    vexa_ready_write(1, "Ready to serve data");
    received();
    platform::flush_status();
    EXPECT_EQ(received(), "{\"percent\": 99, \"text\": \"Decoding PNG\"}\n"
                          "{\"ready\": 1, \"text\": \"Ready to serve data\"}\n");
}

TEST_F(Status, UnchangedStatusFlushesWaitingLines)
{
    item_test::fill(pipe);
    vexa_status_write(50, "Decoding PNG");
    received();
    vexa_status_write(50, "Decoding PNG");
    EXPECT_EQ(received(), "{\"percent\": 50, \"text\": \"Decoding PNG\"}\n");
}

TEST_F(Status, DocumentChangesWithProgress)
{
    platform::status_document();
    const uint64_t before = platform::status_document_generation();
    vexa_status_write(33, "Decoding PNG");
    EXPECT_NE(platform::status_document().find("\"percent\": 33"), std::string::npos);
    EXPECT_EQ(platform::status_document_generation(), before + 1);
    vexa_status_write(33, "Decoding PNG");
    platform::status_document();
    EXPECT_EQ(platform::status_document_generation(), before + 1);
}

TEST_F(Status, ServiceManagerGetsEveryChange)
{
    const std::string path = folder.path("notify");
    changed_environment environment;
    environment.set("NOTIFY_SOCKET", path);
    const unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const auto next = [&fd] {
        char text[1024];
        const ssize_t size = recv(fd.get(), text, sizeof text, 0);
        return std::string(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    };
    vexa_status_write(40, "Decoding PNG");
    EXPECT_EQ(next(), "STATUS=40 % Decoding PNG\n");
    vexa_status_write(-1, "refused");
    EXPECT_EQ(next(), "STATUS=refused\n");
    vexa_ready_write(1, "Ready to serve data");
    EXPECT_EQ(next(),
              "READY=1\nMAINPID=" + std::to_string(getpid()) + "\nSTATUS=Ready to serve data\n");
    platform::close_status();
    EXPECT_EQ(next(), "STOPPING=1\n");
    platform::close_status();
    EXPECT_EQ(next(), "");
}

TEST_F(Status, TerminalShowsProgressUntilReady)
{
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    {
        const replaced_stderr replaced(slave);
        vexa_status_write(7, "Decoding PNG");
        EXPECT_EQ(read_waiting(master), "\r7 % Decoding PNG");
        vexa_status_write(100, "");
        EXPECT_EQ(read_waiting(master), "\r                \r");
        vexa_status_write(50, "Building");
        vexa_ready_write(1, "Ready to serve data");
        EXPECT_EQ(read_waiting(master), "\r50 % Building\r             \r");
    }
    close(master);
    close(slave);
}

TEST_F(Status, ClosingEndsTheHostsChannel)
{
    pipe_pair own = make_pipe();
    ASSERT_TRUE(platform::open_status_channel(own.writer.get()));
    own.writer.reset();
    platform::close_status();
    char byte = 0;
    EXPECT_EQ(read(own.reader.get(), &byte, 1), 0);
}

} // namespace
