#include "wire/socket_address.h"

#include <sys/socket.h>

namespace wire {

bool is_socket_path(const std::string& path)
{
    return !path.empty() && path.size() <= max_socket_path;
}

sockaddr_un socket_address(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, max_socket_path);
    return address;
}

} // namespace wire
