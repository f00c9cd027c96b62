#include "platform/standalone/comm/listener.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/file_operations.h"
#include "wire/sha256.h"
#include "wire/socket_address.h"

namespace platform {

namespace {

constexpr mode_t all_but_owner = 0177;
constexpr const char* message_head = "Comm socket";

struct split_path {
    std::string folder;
    std::string name;
};

split_path split(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return {".", path};
    }
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

bool fail(const std::string& path, const char* reason)
{
    error_line(message_head, path, reason);
    return false;
}

bool fail(const std::string& path, int error_number)
{
    error_line(message_head, path, error_number);
    return false;
}

unique_fd new_socket()
{
    return unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

// 0 when a process listens there, otherwise the error number of the attempt to connect.
int try_to_connect(const std::string& path)
{
    const unique_fd probe = new_socket();
    if (!probe) {
        return errno;
    }
    const sockaddr_un address = wire::socket_address(path);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    return connect(probe.get(), generic, sizeof(address)) == 0 ? 0 : errno;
}

// Handles an existing socket file: true when it was a dead socket of this user and has been
// removed.
bool remove_stale_socket(const std::string& path, uid_t file_owner)
{
    const int answer = try_to_connect(path);
    if (answer == 0 || answer == EAGAIN || answer == EPROTOTYPE) {
        return fail(path, "another process is listening on it");
    }
    if (answer != ECONNREFUSED && answer != ENOENT) {
        return fail(path, answer);
    }
    if (file_owner != geteuid()) {
        return fail(path, "left behind by another user");
    }
    return unlink(path.c_str()) == 0 || errno == ENOENT || fail(path, errno);
}

// Where the socket is bound before it gets its name. A path of its own when that fits; a long
// folder is reached through its descriptor.
std::string temporary_path(const split_path& at, const std::string& name, int folder)
{
    std::string plain = at.folder + "/" + name;
    if (wire::is_socket_path(plain)) {
        return plain;
    }
    return "/proc/self/fd/" + std::to_string(folder) + "/" + name;
}

int bind_private(int socket, const std::string& path)
{
    const sockaddr_un address = wire::socket_address(path);
    const mode_t kept_mask = umask(all_but_owner);
    const int result = bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    umask(kept_mask);
    return result;
}

// Removes the file of a process that died while it created its socket.
void remove_unfinished(int folder, const std::string& name)
{
    const std::string unfinished = unfinished_socket_name(name);
    struct stat file = {};
    if (fstatat(folder, unfinished.c_str(), &file, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISSOCK(file.st_mode) && file.st_uid == geteuid()) {
        unlinkat(folder, unfinished.c_str(), 0);
    }
}

bool note_file(int folder, const std::string& name, comm_listener* listener)
{
    struct stat file = {};
    if (fstatat(folder, name.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    listener->device = file.st_dev;
    listener->inode = file.st_ino;
    listener->owner = getpid();
    return true;
}

// False with errno. In either case the temporary name no longer exists afterwards.
bool bind_and_rename(const split_path& at, comm_listener* listener)
{
    const int folder = listener->folder.get();
    const std::string temporary = unfinished_socket_name(at.name);
    remove_unfinished(folder, at.name);
    const int socket = listener->socket.get();
    if (bind_private(socket, temporary_path(at, temporary, folder)) != 0) {
        return false;
    }
    if (listen(socket, SOMAXCONN) == 0 && note_file(folder, temporary, listener) &&
        renameat(folder, temporary.c_str(), folder, at.name.c_str()) == 0) {
        return true;
    }
    const int reason = errno;
    unlinkat(folder, temporary.c_str(), 0);
    errno = reason;
    return false;
}

} // namespace

// The lock of the path covers this name, too. A name that is too long to be bound through the
// folder's descriptor is shortened.
std::string unfinished_socket_name(const std::string& name)
{
    constexpr size_t max_length = 64;
    const std::string beginning = ".stillimage-";
    return beginning.size() + name.size() <= max_length ? beginning + name
                                                        : beginning + wire::short_hash(name);
}

bool clear_socket_path(const std::string& path)
{
    if (!wire::is_socket_path(path)) {
        return fail(path, "a socket path has 1 to 107 bytes");
    }
    const split_path at = split(path);
    if (const unique_fd folder(open_file(at.folder.c_str(), O_PATH | O_DIRECTORY)); folder) {
        remove_unfinished(folder.get(), at.name);
    }
    struct stat file = {};
    if (lstat(path.c_str(), &file) != 0) {
        return errno == ENOENT || fail(path, errno);
    }
    if (S_ISLNK(file.st_mode)) {
        return fail(path, "is a symbolic link");
    }
    if (!S_ISSOCK(file.st_mode)) {
        return fail(path, "is there and not a socket");
    }
    return remove_stale_socket(path, file.st_uid);
}

bool open_listener(const std::string& path, comm_listener* listener)
{
    if (!wire::is_socket_path(path)) {
        return fail(path, "a socket path has 1 to 107 bytes");
    }
    const split_path at = split(path);
    comm_listener opened;
    opened.path = path;
    opened.name = at.name;
    opened.folder.reset(open_file(at.folder.c_str(), O_PATH | O_DIRECTORY));
    opened.socket = new_socket();
    if (!opened.folder || !opened.socket || !bind_and_rename(at, &opened)) {
        return fail(path, errno);
    }
    *listener = std::move(opened);
    return true;
}

void close_listener(comm_listener* listener)
{
    struct stat file = {};
    const int folder = listener->folder.get();
    if (listener->socket && listener->owner == getpid() &&
        fstatat(folder, listener->name.c_str(), &file, AT_SYMLINK_NOFOLLOW) == 0 &&
        file.st_dev == listener->device && file.st_ino == listener->inode) {
        system_file_operations.unlink_at(folder, listener->name.c_str());
    }
    listener->socket.reset();
    listener->folder.reset();
}

} // namespace platform
