// The floor of the request benchmark: a process that only answers each SOCK_SEQPACKET message with
// a message of a given size.
#pragma once

#include <cstddef>
#include <string>

// Serves the path until killed: waits with epoll, then one recv and one send per message.
[[noreturn]] void run_packet_echo(const std::string& path, size_t answer_size);
