#include "platform/standalone/report/notify_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace platform {

namespace {

bool is_address(std::string_view address)
{
    return address.size() >= 2 && address.size() <= sizeof(sockaddr_un::sun_path) &&
           (address[0] == '/' || address[0] == '@');
}

bool connect_to(int fd, std::string_view address)
{
    sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    std::copy(address.begin(), address.end(), to.sun_path);
    if (address[0] == '@') {
        to.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    return connect(fd, reinterpret_cast<const sockaddr*>(&to), size) == 0;
}

} // namespace

bool notify_socket::open(const char* address)
{
    close();
    if (address == nullptr || !is_address(address)) {
        return false;
    }
    fd_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd_ && !connect_to(fd_.get(), address)) {
        fd_.reset();
    }
    return is_open();
}

void notify_socket::close()
{
    *this = notify_socket();
}

void notify_socket::queue_status(std::string_view text)
{
    status_ = text;
    flush();
}

void notify_socket::queue_ready(std::string_view text)
{
    ready_ = true;
    queue_status(text);
}

void notify_socket::queue_stopping()
{
    stopping_ = true;
    flush();
}

// After daemon() the process has a different id from the one that the manager started.
std::string notify_socket::message() const
{
    std::string text;
    if (ready_) {
        text += "READY=1\nMAINPID=" + std::to_string(getpid()) + '\n';
    }
    if (stopping_) {
        text += "STOPPING=1\n";
    }
    if (!status_.empty()) {
        text += "STATUS=" + status_ + '\n';
    }
    return text;
}

void notify_socket::flush()
{
    const std::string text = is_open() ? message() : std::string();
    if (text.empty()) {
        return;
    }
    const ssize_t sent = send(fd_.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0 || (errno != EAGAIN && errno != EINTR && errno != ENOBUFS)) {
        ready_ = false;
        stopping_ = false;
        status_.clear();
    }
}

} // namespace platform
