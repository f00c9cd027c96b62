#include "tests/support/fake_worker.h"

#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

using namespace comm_protocol;

fake_peer::~fake_peer()
{
    hang_up();
}

packet_header fake_peer::next()
{
    packet_header header;
    request.resize(max_packet_size);
    const ssize_t got = recv(fd_, request.data(), request.size(), 0);
    request.resize(got > 0 ? static_cast<size_t>(got) : 0);
    if (got <= 0 || !decode_header(request.data(), request.size(), &header)) {
        header.type = 0;
    }
    return header;
}

packet_header fake_peer::next(packet_type type)
{
    packet_header header = next();
    while (header.type != 0 && header.type != type) {
        send(encode_empty(header.request, DONE));
        header = next();
    }
    return header;
}

bool fake_peer::send(const packet_bytes& packet) const
{
    return ::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL) >= 0;
}

bool fake_peer::send_with_descriptor(const packet_bytes& packet, int descriptor) const
{
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec piece = {const_cast<unsigned char*>(packet.data()), packet.size()};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
    return sendmsg(fd_, &message, MSG_NOSIGNAL) >= 0;
}

void fake_peer::greet()
{
    send(encode(next(HELLO).request, hello_answer{1, 4321, 0}));
}

void fake_peer::serve_frame(const frame_sample& sample, int descriptor)
{
    const packet_bytes packet = encode(next(GET_FRAME).request, sample.message);
    if (descriptor < 0) {
        send(packet);
    } else {
        send_with_descriptor(packet, descriptor);
    }
}

void fake_peer::hang_up()
{
    if (fd_ >= 0) {
        close(std::exchange(fd_, -1));
    }
}

void fake_peer::await_end()
{
    while (next().type != 0) {
    }
}

fake_worker::fake_worker(std::function<void(fake_peer&)> script)
    : script_(std::move(script)), path_(folder_.path("socket"))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, 8) != 0) {
        abort();
    }
    thread_ = std::thread([this] { serve(); });
}

fake_worker::~fake_worker()
{
    shutdown(listener_, SHUT_RDWR); // makes accept return
    thread_.join();
    close(listener_);
}

bool fake_worker::belong_to(uid_t user) const
{
    const bool open_to_all =
        chmod(folder_.path().c_str(), 0711) == 0 && chmod(path_.c_str(), 0666) == 0;
    if (!open_to_all || seteuid(user) != 0) {
        return false;
    }
    const bool listening = listen(listener_, 8) == 0; // the kernel records the caller's user here
    return seteuid(0) == 0 && listening;
}

void fake_worker::serve()
{
    while (true) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        fake_peer peer(fd);
        script_(peer);
    }
}

int unsealed_memory(const std::vector<unsigned char>& bytes)
{
    const int fd = memfd_create("fake buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        abort();
    }
    return fd;
}

int sparse_memory(uint64_t size)
{
    const int fd = unsealed_memory({});
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        abort();
    }
    return fd;
}

int with_seals(int fd, int seals)
{
    if (fcntl(fd, F_ADD_SEALS, seals) != 0) {
        abort();
    }
    return fd;
}

int sealed_memory(const std::vector<unsigned char>& bytes)
{
    return with_seals(unsealed_memory(bytes), worker_seals);
}
