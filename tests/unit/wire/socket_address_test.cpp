#include <cstring>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "wire/socket_address.h"

namespace {

TEST(SocketAddress, PathsOf1To107BytesFit)
{
    EXPECT_FALSE(wire::is_socket_path(""));
    EXPECT_TRUE(wire::is_socket_path("/"));
    EXPECT_TRUE(wire::is_socket_path(std::string(107, 'x')));
    EXPECT_FALSE(wire::is_socket_path(std::string(108, 'x')));
}

TEST(SocketAddress, HoldsTheWholePathAndANul)
{
    const std::string longest(wire::max_socket_path, 'x');
    const sockaddr_un address = wire::socket_address(longest);
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_EQ(strnlen(address.sun_path, sizeof address.sun_path), wire::max_socket_path);
    EXPECT_EQ(address.sun_path, longest);
}

} // namespace
