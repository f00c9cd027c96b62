#include <algorithm>
#include <cstddef>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/standalone/report/notify_socket.h"
#include "tests/support/item_fixture.h"

namespace {

// A service manager's socket: bound to a path, or to an abstract name that starts with '@'.
class service_manager {
public:
    explicit service_manager(const std::string& address)
        : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un to = {};
        to.sun_family = AF_UNIX;
        std::copy(address.begin(), address.end(), to.sun_path);
        if (address[0] == '@') {
            to.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr*>(&to), size), 0) << address;
    }

    // The next message; "" when there is none.
    std::string next() const
    {
        char text[4096];
        const ssize_t size = recv(fd_.get(), text, sizeof text, 0);
        return {text, static_cast<size_t>(std::max<ssize_t>(size, 0))};
    }

private:
    unique_fd fd_;
};

class NotifySocket : public item_test::ItemFixture {
protected:
    platform::notify_socket socket;
    const std::string main_pid = "MAINPID=" + std::to_string(getpid()) + "\n";
};

TEST_F(NotifySocket, SendsReadyStatusAndStopping)
{
    const service_manager manager(folder.path("notify"));
    ASSERT_TRUE(socket.open(folder.path("notify").c_str()));
    socket.queue_status("40 % Decoding PNG");
    EXPECT_EQ(manager.next(), "STATUS=40 % Decoding PNG\n");
    socket.queue_ready("Ready to serve data");
    EXPECT_EQ(manager.next(), "READY=1\n" + main_pid + "STATUS=Ready to serve data\n");
    socket.queue_stopping();
    EXPECT_EQ(manager.next(), "STOPPING=1\n");
    EXPECT_EQ(manager.next(), "");
}

TEST_F(NotifySocket, AbstractNamesWork)
{
    const std::string address = "@stillimage-test-" + std::to_string(getpid());
    const service_manager manager(address);
    ASSERT_TRUE(socket.open(address.c_str()));
    socket.queue_stopping();
    EXPECT_EQ(manager.next(), "STOPPING=1\n");
}

TEST_F(NotifySocket, InvalidAddressesAreIgnored)
{
    EXPECT_FALSE(socket.open(nullptr));
    for (const std::string& address :
         {std::string(), std::string("/"), std::string("@"), std::string("relative/path"),
          std::string("/") + std::string(108, 'x')}) {
        EXPECT_FALSE(socket.open(address.c_str())) << address;
        socket.queue_ready("x");
        socket.flush();
    }
}

TEST_F(NotifySocket, LongestAddressIsAccepted)
{
    const std::string longest = "@" + std::string(107, 'x');
    const service_manager manager(longest);
    EXPECT_TRUE(socket.open(longest.c_str()));
}

TEST_F(NotifySocket, MissingManagerIsIgnored)
{
    EXPECT_FALSE(socket.open(folder.path("nobody").c_str()));
    socket.queue_ready("x");
    socket.queue_stopping();
    const service_manager manager(folder.path("nobody"));
    socket.flush();
    EXPECT_EQ(manager.next(), "");
}

TEST_F(NotifySocket, ManagerThatHasEndedIsIgnored)
{
    {
        const service_manager manager(folder.path("notify"));
        ASSERT_TRUE(socket.open(folder.path("notify").c_str()));
    }
    socket.queue_ready("x");
    socket.flush();
    socket.queue_stopping();
}

TEST_F(NotifySocket, SlowManagerGetsTheLatestStateLater)
{
    const service_manager manager(folder.path("notify"));
    ASSERT_TRUE(socket.open(folder.path("notify").c_str()));
    for (int i = 0; i < 10'000; ++i) {
        socket.queue_status(std::to_string(i));
    }
    socket.queue_ready("Ready to serve data");
    std::string last;
    for (std::string text = manager.next(); !text.empty(); text = manager.next()) {
        last = text;
    }
    EXPECT_EQ(last.find("READY"), std::string::npos);
    socket.flush();
    EXPECT_EQ(manager.next(), "READY=1\n" + main_pid + "STATUS=Ready to serve data\n");
    socket.flush();
    EXPECT_EQ(manager.next(), "");
}

TEST_F(NotifySocket, EmptyStatusIsNotSent)
{
    const service_manager manager(folder.path("notify"));
    ASSERT_TRUE(socket.open(folder.path("notify").c_str()));
    socket.queue_status("");
    EXPECT_EQ(manager.next(), "");
}

TEST_F(NotifySocket, ClosedSocketSendsNothing)
{
    const service_manager manager(folder.path("notify"));
    ASSERT_TRUE(socket.open(folder.path("notify").c_str()));
    socket.close();
    socket.close();
    socket.queue_stopping();
    EXPECT_EQ(manager.next(), "");
}

} // namespace
