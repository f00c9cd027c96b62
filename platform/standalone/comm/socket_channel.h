// A connected, non-blocking SOCK_SEQPACKET socket as a packet channel.
#pragma once

#include <memory>

#include "common/unique_fd.h"
#include "platform/standalone/comm/channel.h"

namespace platform {

std::unique_ptr<packet_channel> make_socket_channel(unique_fd socket);

} // namespace platform
