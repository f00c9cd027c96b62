#include "tests/support/hostile_clients.h"

#include <array>
#include <csignal>
#include <new>
#include <poll.h>
#include <random>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/support/packet_client.h"
#include "tests/support/signals.h"

using namespace comm_protocol;

namespace {

std::mt19937 random_numbers(20'240'601); // the same sequence in every run

unsigned random_below(unsigned limit)
{
    return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_numbers);
}

std::string random_text(size_t size)
{
    std::string text(size, '\0');
    for (char& c : text) {
        c = static_cast<char>(random_below(256));
    }
    return text;
}

std::string_view text_of(const packet_bytes& packet)
{
    return {reinterpret_cast<const char*>(packet.data()), packet.size()};
}

packet_client greeted(const std::string& socket)
{
    packet_client client(socket);
    if (client.connected()) {
        client.send(encode(1, hello()));
    }
    return client;
}

void read_everything(const packet_client& client)
{
    while (client.receive().has_value()) {
    }
}

void wait_until_readable(const packet_client& client)
{
    constexpr int patience_ms = 100;
    pollfd readable = {client.fd(), POLLIN, 0};
    poll(&readable, 1, patience_ms);
}

// Connections that are kept, and made again when the worker has dropped them.
class crowd {
public:
    packet_client& at(size_t index, const std::string& socket)
    {
        if (clients_.size() <= index) {
            clients_.resize(index + 1);
        }
        if (!clients_[index].connected() || clients_[index].hung_up()) {
            clients_[index] = greeted(socket);
        }
        return clients_[index];
    }

private:
    std::vector<packet_client> clients_;
};

crowd kept;

// Changes the document, half of which this name's value then is.
void change_document_entries(const std::string& socket, size_t connection)
{
    static unsigned count = 0;
    const std::string name = "filler " + std::to_string(++count % 32);
    const std::string value = std::to_string(count) + std::string(16'000, 'x');
    const packet_client& setter = kept.at(connection, socket);
    setter.send(encode(3, set_metadata{name, value}));
    read_everything(setter);
}

// --- the twelve ---------------------------------------------------------------------------------

void send_half_packets(const std::string& socket)
{
    const packet_bytes whole = encode(2, set_metadata{"name", "value"});
    const packet_client client = greeted(socket);
    client.send_bytes(text_of(whole).substr(0, 1 + random_below(35)));
    wait_until_readable(client);
}

void flood_without_reading(const std::string& socket)
{
    constexpr int requests = 200;
    const packet_client& client = kept.at(random_below(8), socket);
    for (int i = 0; i < requests; ++i) {
        if (!client.send(i % 2 == 0 ? encode(2, get_frame{0, 0}) : encode_ping(2, PING, {}))) {
            break;
        }
    }
}

void flood_and_read(const std::string& socket)
{
    constexpr int requests = 64;
    const packet_client& client = kept.at(random_below(8), socket);
    for (int i = 0; i < requests; ++i) {
        client.send(i % 2 == 0 ? encode(2, get_frame{0, 0}) : encode_ping(2, PING, {}));
    }
    while (const auto answer = client.receive()) {
        if (answer->header.type == FRAME) {
            client.send(encode(3, release_frame{answer->as<frame>().reference}));
        }
    }
}

void open_thousands(const std::string& socket)
{
    constexpr unsigned connections = 3000;
    static unsigned next = 0;
    for (int i = 0; i < 20; ++i) {
        const packet_client& client = kept.at(next++ % connections, socket);
        client.send(encode_ping(2, PING, {}));
        read_everything(client);
    }
}

void hoard_frames(const std::string& socket)
{
    constexpr unsigned connections = 160;
    static unsigned next = 0;
    const packet_client& client = kept.at(next++ % connections, socket);
    constexpr int frames = 100;
    for (int i = 0; i < frames; ++i) {
        client.send(encode(2, get_frame{0, 0}));
    }
    read_everything(client);
}

void send_bad_lengths(const std::string& socket)
{
    constexpr std::array<uint32_t, 6> lengths = {0, 1, 23, 25, 65537, 0xFFFFFFFF};
    packet_bytes packet = encode_ping(2, PING, {});
    const uint32_t length = lengths[random_below(lengths.size())];
    for (unsigned byte = 0; byte < 4; ++byte) {
        packet[12 + byte] = static_cast<unsigned char>(length >> (8 * byte));
    }
    const packet_client client = greeted(socket);
    if (random_below(4) == 0) {
        client.send_bytes(std::string(150'000, 'A'));
    } else {
        client.send(packet);
    }
    wait_until_readable(client);
}

void send_random_bodies(const std::string& socket)
{
    const packet_client& client = kept.at(random_below(8), socket);
    for (int i = 0; i < 20; ++i) {
        const unsigned type = random_below(260);
        if (type == EXIT) {
            continue; // any client may end the worker
        }
        packet_bytes packet = encode_empty(2, static_cast<packet_type>(type));
        const std::string body = random_text(random_below(300));
        packet.insert(packet.end(), body.begin(), body.end());
        packet[12] = static_cast<unsigned char>(packet.size());
        packet[13] = static_cast<unsigned char>(packet.size() >> 8U);
        client.send(packet);
    }
    read_everything(client);
}

void send_descriptors(const std::string& socket)
{
    constexpr size_t count = 200;
    const packet_client& client = kept.at(random_below(8), socket);
    for (int i = 0; i < 8; ++i) {
        client.send_with_descriptors(encode_ping(2, PING, {}), STDIN_FILENO, count);
    }
    read_everything(client);
}

// 4 MiB of values, changed over and over.
void set_much_metadata(const std::string& socket)
{
    static unsigned count = 0;
    const packet_client& client = kept.at(0, socket);
    for (int i = 0; i < 8; ++i) {
        const std::string name = "name " + std::to_string(++count % 256);
        std::string value = std::to_string(count) + " ";
        value.resize(max_set_metadata_value, static_cast<char>('a' + count % 26));
        client.send(encode(2, set_metadata{name, value}));
    }
    wait_until_readable(client);
    read_everything(client);
}

void subscribe_and_stop(const std::string& socket)
{
    constexpr unsigned connections = 64;
    static unsigned next = 0;
    kept.at(1 + next++ % connections, socket).send(encode(2, subscribe{0xFFFFFFFF}));
    change_document_entries(socket, 0);
}

void flood_status(const std::string& socket)
{
    change_document_entries(socket, 0);
    const packet_client& client = kept.at(1 + random_below(8), socket);
    for (int i = 0; i < 8; ++i) {
        client.send(encode_empty(2, GET_STATUS));
    }
    for (size_t i = 1; i <= 8; ++i) {
        read_everything(kept.at(i, socket));
    }
}

void reconnect(const std::string& socket)
{
    const packet_client client = greeted(socket);
    if (random_below(2) == 0) {
        client.send(encode(2, get_frame{0, 0}));
        wait_until_readable(client);
    }
}

constexpr hostile_client all_clients[] = {
    {"half packets", send_half_packets},   {"unread floods", flood_without_reading},
    {"read floods", flood_and_read},       {"thousands of connections", open_thousands},
    {"frame references", hoard_frames},    {"bad lengths", send_bad_lengths},
    {"random bodies", send_random_bodies}, {"descriptors sent in", send_descriptors},
    {"metadata", set_much_metadata},       {"stopped readers", subscribe_and_stop},
    {"status floods", flood_status},       {"reconnect storms", reconnect},
};

void allow_many_descriptors()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

std::span<const hostile_client> hostile_clients()
{
    return all_clients;
}

hostile_process::hostile_process(const hostile_client& client, const std::string& socket)
{
    void* shared = mmap(nullptr, sizeof(std::atomic<unsigned>), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        throw std::bad_alloc();
    }
    steps_ = new (shared) std::atomic<unsigned>(0);
    pid_ = fork();
    if (pid_ == 0) {
        allow_many_descriptors();
        while (getppid() != 1) { // also ends with a parent that is killed
            client.step(socket);
            ++*steps_;
        }
        _exit(0);
    }
}

hostile_process::~hostile_process()
{
    send_signal(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    munmap(steps_, sizeof(std::atomic<unsigned>));
}
