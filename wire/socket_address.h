// Paths of local sockets. Linux limits their length.
#pragma once

#include <cstddef>
#include <string>
#include <sys/un.h>

namespace wire {

// Bytes of the longest path that fits, without the terminating NUL.
inline constexpr size_t max_socket_path = sizeof(sockaddr_un::sun_path) - 1;
static_assert(max_socket_path == 107, "messages and documents give this number");

// Whether the path has 1 to max_socket_path bytes.
bool is_socket_path(const std::string& path);

// The address of the socket at `path`, which is_socket_path accepts.
sockaddr_un socket_address(const std::string& path);

} // namespace wire
