// The floor of the request benchmark: a process that does nothing but answer each SOCK_SEQPACKET
// message with one of a given size, as fast as the kernel lets it.
#pragma once

#include <cstddef>
#include <string>

// Serves the path until killed: waits with epoll, one recv and one send for each message.
[[noreturn]] void run_packet_echo(const std::string& path, size_t answer_size);
