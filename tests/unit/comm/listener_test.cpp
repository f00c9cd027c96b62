#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/standalone/comm/listener.h"
#include "tests/support/child_process.h"
#include "tests/support/packet_client.h"
#include "tests/support/temporary_folder.h"
#include "wire/socket_address.h"

using platform::clear_socket_path;
using platform::close_listener;
using platform::comm_listener;
using platform::open_listener;
using platform::unfinished_socket_name;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using wire::max_socket_path;

namespace {

class Listener : public testing::Test {
protected:
    ~Listener() override { close_listener(&listener); }

    // Expects a refusal on one line that contains the path and the reason.
    static void expect_refused(const std::string& path, const std::string& reason)
    {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(clear_socket_path(path));
        const std::string printed = testing::internal::GetCapturedStderr();
        EXPECT_EQ(printed, "Comm socket '" + path + "': " + reason + "\n");
    }

    // A socket of another type bound to the path.
    static unique_fd bind_socket(const std::string& path, int type)
    {
        unique_fd made(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
                  0);
        return made;
    }

    temporary_folder folder;
    std::string path = folder.path("socket");
    comm_listener listener;
};

// Changes the working folder until the end of the scope.
class inside_folder {
public:
    explicit inside_folder(const std::string& path)
        : before_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        EXPECT_EQ(chdir(path.c_str()), 0);
    }
    inside_folder(const inside_folder&) = delete;
    inside_folder& operator=(const inside_folder&) = delete;
    ~inside_folder() { EXPECT_EQ(fchdir(before_.get()), 0); }

private:
    unique_fd before_;
};

mode_t mode_of(const std::string& path)
{
    struct stat file = {};
    EXPECT_EQ(lstat(path.c_str(), &file), 0);
    return file.st_mode;
}

} // namespace

TEST_F(Listener, FreePathIsListenedOnWithMode0600)
{
    const mode_t mask = umask(0);
    ASSERT_TRUE(clear_socket_path(path));
    ASSERT_TRUE(open_listener(path, &listener));
    EXPECT_EQ(umask(mask), 0U);
    EXPECT_EQ(mode_of(path), S_IFSOCK | 0600U);
    EXPECT_TRUE(packet_client(path).connected());
    EXPECT_THAT(folder.names(), ElementsAre("socket"));
}

TEST_F(Listener, ClosingRemovesTheFileAndMayRunTwice)
{
    ASSERT_TRUE(open_listener(path, &listener));
    close_listener(&listener);
    EXPECT_FALSE(folder.has("socket"));
    close_listener(&listener);
}

TEST_F(Listener, StaleSocketIsRemoved)
{
    bind_socket(path, SOCK_SEQPACKET).reset();
    ASSERT_TRUE(folder.has("socket"));
    EXPECT_TRUE(clear_socket_path(path));
    EXPECT_FALSE(folder.has("socket"));
}

TEST_F(Listener, UnfinishedSocketOfADeadProcessIsRemoved)
{
    bind_socket(folder.path(".stillimage-socket"), SOCK_SEQPACKET).reset();
    bind_socket(folder.path(".stillimage-other"), SOCK_SEQPACKET).reset();
    EXPECT_TRUE(clear_socket_path(path));
    EXPECT_THAT(folder.names(), ElementsAre(".stillimage-other"));
    bind_socket(folder.path(".stillimage-socket"), SOCK_SEQPACKET).reset();
    EXPECT_TRUE(open_listener(path, &listener));
    EXPECT_FALSE(folder.has(".stillimage-socket"));
}

TEST_F(Listener, FileNamedLikeAnUnfinishedSocketIsKept)
{
    folder.write(".stillimage-socket", "text");
    EXPECT_TRUE(clear_socket_path(path));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(open_listener(path, &listener));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Comm socket '" + path + "': Address already in use\n");
    EXPECT_EQ(folder.read(".stillimage-socket"), "text");
}

TEST_F(Listener, LiveSocketIsRefused)
{
    ASSERT_TRUE(open_listener(path, &listener));
    expect_refused(path, "another process is listening on it");
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Listener, LiveSocketOfAnotherTypeIsRefused)
{
    const unique_fd stream = bind_socket(path, SOCK_STREAM);
    ASSERT_EQ(listen(stream.get(), 1), 0);
    expect_refused(path, "another process is listening on it");
}

TEST_F(Listener, LiveSocketWithAFullBacklogIsRefused)
{
    const unique_fd busy = bind_socket(path, SOCK_SEQPACKET);
    ASSERT_EQ(listen(busy.get(), 0), 0);
    const packet_client first(path);
    expect_refused(path, "another process is listening on it");
}

TEST_F(Listener, RegularFileIsRefusedAndKept)
{
    folder.write("socket", "text");
    expect_refused(path, "is there and not a socket");
    EXPECT_EQ(folder.read("socket"), "text");
}

TEST_F(Listener, FolderIsRefused)
{
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    expect_refused(path, "is there and not a socket");
}

TEST_F(Listener, SymbolicLinkIsRefusedEvenToAStaleSocket)
{
    bind_socket(folder.path("other"), SOCK_SEQPACKET).reset();
    ASSERT_EQ(symlink("other", path.c_str()), 0);
    expect_refused(path, "is a symbolic link");
    EXPECT_TRUE(folder.has("other"));
    EXPECT_TRUE(folder.has("socket"));
}

TEST_F(Listener, StaleSocketOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    bind_socket(path, SOCK_SEQPACKET).reset();
    ASSERT_EQ(chown(path.c_str(), unprivileged_user, unprivileged_user), 0);
    expect_refused(path, "left behind by another user");
    EXPECT_TRUE(folder.has("socket"));
}

TEST_F(Listener, MissingFolderIsReportedWhenListening)
{
    const std::string missing = folder.path("none/socket");
    EXPECT_TRUE(clear_socket_path(missing));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(open_listener(missing, &listener));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Comm socket '" + missing + "': No such file or directory\n");
}

TEST_F(Listener, PathOf107BytesIsAcceptedAndOf108Refused)
{
    const std::string longest(path + std::string(max_socket_path - path.size(), 'x'));
    ASSERT_TRUE(clear_socket_path(longest));
    ASSERT_TRUE(open_listener(longest, &listener));
    EXPECT_TRUE(packet_client(longest).connected());
    expect_refused(longest + "x", "a socket path has 1 to 107 bytes");
    expect_refused(std::string(4096, 'x'), "a socket path has 1 to 107 bytes");
    expect_refused("", "a socket path has 1 to 107 bytes");
    testing::internal::CaptureStderr();
    comm_listener none;
    EXPECT_FALSE(open_listener(longest + "x", &none));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("a socket path has 1 to 107 bytes"));
}

TEST_F(Listener, LongFolderWithAShortNameIsAccepted)
{
    // The folder leaves no room for the longer temporary name of the socket.
    std::string deep = folder.path();
    deep += "/" + std::string(max_socket_path - deep.size() - 3, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    const std::string at_the_end = deep + "/s";
    ASSERT_EQ(at_the_end.size(), max_socket_path);
    ASSERT_TRUE(open_listener(at_the_end, &listener));
    EXPECT_TRUE(packet_client(at_the_end).connected());
    EXPECT_THAT(folder.names(), ElementsAre(std::string(deep, folder.path().size() + 1)));
    close_listener(&listener);
    EXPECT_EQ(access(at_the_end.c_str(), F_OK), -1);
}

TEST_F(Listener, NameAsLongAsAWholePathIsAccepted)
{
    const inside_folder inside(folder.path());
    const std::string longest(max_socket_path, 'n');
    ASSERT_TRUE(clear_socket_path(longest));
    ASSERT_TRUE(open_listener(longest, &listener));
    EXPECT_TRUE(packet_client(longest).connected());
    EXPECT_THAT(folder.names(), ElementsAre(longest));
    close_listener(&listener);
}

TEST_F(Listener, UnfinishedSocketOfALongNameIsRemoved)
{
    const inside_folder inside(folder.path());
    const std::string longest(max_socket_path, 'n');
    const std::string other = std::string(max_socket_path - 1, 'n') + 'o';
    ASSERT_TRUE(open_listener(longest, &listener));
    const std::string unfinished = unfinished_socket_name(longest);
    EXPECT_NE(unfinished, unfinished_socket_name(other));
    bind_socket(unfinished, SOCK_SEQPACKET).reset();
    bind_socket(unfinished_socket_name(other), SOCK_SEQPACKET).reset();
    close_listener(&listener);
    EXPECT_TRUE(clear_socket_path(longest));
    EXPECT_THAT(folder.names(), ElementsAre(unfinished_socket_name(other)));
}

TEST_F(Listener, ListeningAgainReplacesTheSocketInPlace)
{
    ASSERT_TRUE(open_listener(path, &listener));
    const packet_client before(path);
    comm_listener second;
    ASSERT_TRUE(open_listener(path, &second));
    EXPECT_TRUE(packet_client(path).connected());
    close_listener(&listener); // does not own the file any more
    EXPECT_TRUE(folder.has("socket"));
    EXPECT_TRUE(packet_client(path).connected());
    close_listener(&second);
    EXPECT_THAT(folder.names(), IsEmpty());
}

TEST_F(Listener, FailureToListenAgainKeepsThePath)
{
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(open_listener(path, &listener));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Comm socket '" + path + "': Is a directory\n");
    EXPECT_THAT(folder.names(), ElementsAre("socket"));
    rmdir(path.c_str());
}

TEST_F(Listener, ForkedChildKeepsTheFileOfItsParent)
{
    ASSERT_TRUE(open_listener(path, &listener));
    EXPECT_EQ(run_in_child([this] {
                  close_listener(&listener);
                  return 0;
              }),
              0);
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(Listener, FileThatReplacedTheSocketIsKept)
{
    ASSERT_TRUE(open_listener(path, &listener));
    ASSERT_EQ(unlink(path.c_str()), 0);
    folder.write("socket", "somebody else's");
    close_listener(&listener);
    EXPECT_EQ(folder.read("socket"), "somebody else's");
}

TEST_F(Listener, RelativePathIsAccepted)
{
    const inside_folder inside(folder.path());
    EXPECT_TRUE(clear_socket_path("socket"));
    EXPECT_TRUE(open_listener("socket", &listener));
    EXPECT_TRUE(packet_client(path).connected());
    close_listener(&listener);
    EXPECT_FALSE(folder.has("socket"));
}
