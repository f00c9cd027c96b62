#include "client/convert/byte_sink.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>

namespace {

// Blocks SIGPIPE for this thread during its life and discards one that was raised meanwhile.
class block_sigpipe {
public:
    block_sigpipe()
    {
        sigset_t pending;
        sigemptyset(&only_);
        sigaddset(&only_, SIGPIPE);
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &only_, &previous_);
    }
    block_sigpipe(const block_sigpipe&) = delete;
    block_sigpipe& operator=(const block_sigpipe&) = delete;
    ~block_sigpipe()
    {
        const int error = errno;
        const timespec at_once = {};
        if (!was_pending_) {
            sigtimedwait(&only_, nullptr, &at_once);
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
        errno = error;
    }

private:
    sigset_t only_;
    sigset_t previous_;
    bool was_pending_;
};

bool write_all(int fd, const uint8_t* bytes, size_t size)
{
    const block_sigpipe blocked;
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written > 0) {
            bytes += written;
            size -= static_cast<size_t>(written);
        } else if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd waiting = {fd, POLLOUT, 0};
            poll(&waiting, 1, -1);
        } else if (written == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool make_room(byte_sink& sink, size_t more)
{
    if (more <= sink.room - sink.size) {
        return true;
    }
    constexpr size_t min_room = 65536;
    if (more > SIZE_MAX / 4 || sink.size > SIZE_MAX / 4) {
        return false;
    }
    const size_t room = std::max({min_room, 2 * sink.room, sink.size + more});
    void* moved = realloc(sink.bytes, room);
    if (moved == nullptr) {
        return false;
    }
    sink.bytes = static_cast<uint8_t*>(moved);
    sink.room = room;
    return true;
}

} // namespace

bool put_bytes(byte_sink& sink, const uint8_t* bytes, size_t size)
{
    if (sink.fd >= 0) {
        const bool written = write_all(sink.fd, bytes, size);
        sink.error = written ? 0 : errno;
        return written;
    }
    if (!make_room(sink, size)) {
        sink.error = ENOMEM;
        return false;
    }
    memcpy(sink.bytes + sink.size, bytes, size);
    sink.size += size;
    return true;
}
