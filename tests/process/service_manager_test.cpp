// What the real program reports to a service manager on the socket named by NOTIFY_SOCKET, and
// when.
#include <algorithm>
#include <csignal>
#include <cstddef>
#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "common/unique_fd.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/landscape-420.jpg";

// The manager's end of the socket: collects the messages, each of one or more lines.
class manager {
public:
    explicit manager(const std::string& address)
    {
        sockaddr_un own = {};
        own.sun_family = AF_UNIX;
        std::copy(address.begin(), address.end(), own.sun_path);
        if (address[0] == '@') {
            own.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own), size), 0);
    }

    const std::vector<std::string>& messages()
    {
        char text[4096];
        for (ssize_t got = 0; (got = recv(fd_.get(), text, sizeof text, MSG_DONTWAIT)) > 0;) {
            messages_.emplace_back(text, static_cast<size_t>(got));
        }
        return messages_;
    }

    // Waits for a message with `text` and returns its index; npos when none arrives in time.
    size_t wait_for(const std::string& text)
    {
        size_t found = std::string::npos;
        eventually([&] {
            found = index_of(text);
            return found != std::string::npos;
        });
        return found;
    }

private:
    size_t index_of(const std::string& text)
    {
        const auto& all = messages();
        const auto at = std::find_if(all.begin(), all.end(), [&](const std::string& message) {
            return message.find(text) != std::string::npos;
        });
        return at == all.end() ? std::string::npos : static_cast<size_t>(at - all.begin());
    }

    unique_fd fd_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::vector<std::string> messages_;
};

class ServiceManager : public testing::Test {
protected:
    std::string address() const { return home.path("notify"); }

    // Serves on socket "s" in the home folder.
    worker::setting serving(const std::string& file, const std::string& address) const
    {
        return {{"--file", file, "--sock", home.path("s"), "--no-autoshutdown"},
                {"NOTIFY_SOCKET=" + address}};
    }

    worker_home home;
};

TEST_F(ServiceManager, ReceivesProgressThenReadinessThenTheEnd)
{
    manager host(address());
    worker served(home, serving(picture, address()));
    const size_t ready = host.wait_for("READY=1\n");
    ASSERT_NE(ready, std::string::npos);
    EXPECT_EQ(host.messages()[ready], "READY=1\nMAINPID=" + std::to_string(served.pid()) +
                                          "\nSTATUS=Ready to serve data\n");
    EXPECT_GT(ready, 0U);
    EXPECT_THAT(host.messages()[0], StartsWith("STATUS=0 % Decoding JPEG\n"));
    EXPECT_THAT(host.messages(), Each(Not(HasSubstr("STOPPING"))));

    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(host.messages().back(), StartsWith("STOPPING=1\n"));
}

TEST_F(ServiceManager, FrameIsAvailableOnceReadinessIsReported)
{
    manager host(address());
    worker served(home, serving(picture, address()));
    ASSERT_NE(host.wait_for("READY=1\n"), std::string::npos);
    const held_client client = connect_to(home.path("s"));
    stillimage_frame* frame = nullptr;
    EXPECT_EQ(stillimage_get_frame(client.get(), 0, 0, 0, 0, &frame), STILLIMAGE_OK)
        << stillimage_last_error(client.get());
    stillimage_frame_release(frame);
}

TEST_F(ServiceManager, AbstractAddressIsUnderstood)
{
    const std::string abstract = "@stillimage-test-" + std::to_string(getpid());
    manager host(abstract);
    worker served(home, serving(picture, abstract));
    EXPECT_NE(host.wait_for("READY=1\n"), std::string::npos);
}

TEST_F(ServiceManager, RefusedFileIsNeverReady)
{
    const std::string text = home.folder().write("text.jpg", "This is no picture at all.");
    manager host(address());
    EXPECT_EQ(run_worker(home, serving(text, address())).status, 1);
    EXPECT_THAT(host.messages(), Each(Not(HasSubstr("READY"))));
}

TEST_F(ServiceManager, QuitByAClientIsReportedAsStopping)
{
    manager host(address());
    worker served(home, serving(picture, address()));
    ASSERT_NE(host.wait_for("READY=1\n"), std::string::npos);
    EXPECT_EQ(run_client(home, {home.path("s"), "quit"}), 0);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(host.messages(), Contains(HasSubstr("STOPPING=1\n")));
}

TEST_F(ServiceManager, DaemonReportsItsOwnPid)
{
    manager host(address());
    worker::setting how = serving(picture, address());
    how.arguments.push_back("--daemon");
    EXPECT_EQ(run_worker(home, how).status, 0);
    const held_client client = connect_to(home.path("s"));
    const size_t ready = host.wait_for("READY=1\n");
    ASSERT_NE(ready, std::string::npos);
    EXPECT_THAT(host.messages()[ready],
                HasSubstr("MAINPID=" + std::to_string(stillimage_worker_pid(client.get())) + "\n"));
    EXPECT_EQ(stillimage_quit(client.get(), 30'000), STILLIMAGE_OK);
    EXPECT_NE(host.wait_for("STOPPING=1\n"), std::string::npos);
}

TEST_F(ServiceManager, ManagerThatNeverReadsDoesNotBlockTheWorker)
{
    manager host(address()); // its queue fills up after a few messages
    worker served(home, serving(picture, address()));
    EXPECT_EQ(run_client(home, {home.path("s"), "wait", "--timeout", "30"}), 0);
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0);
    EXPECT_THAT(host.messages(), Not(IsEmpty())); // those that the queue had room for
}

TEST_F(ServiceManager, MissingManagerDoesNotEndTheWorker)
{
    worker served(home, serving(picture, home.path("nobody")));
    EXPECT_EQ(run_client(home, {home.path("s"), "wait", "--timeout", "30"}), 0);
    served.send(SIGTERM);
    EXPECT_EQ(served.wait_end(), 0);
}

} // namespace
