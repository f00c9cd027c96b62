// Runs the worked exchange of docs/protocol.md against the service.
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/comm_fixture.h"

using namespace comm_protocol;

namespace {

constexpr const char* document = STILLIMAGE_TEST_DATA "/../../docs/protocol.md";

struct packet_line {
    char direction; // '>' or '<'
    packet_bytes bytes;
};

// A packet starts with a line "> 53 54 ..." or "< 53 54 ..."; lines that start with two blanks
// continue it.
std::vector<packet_line> read_exchange()
{
    std::vector<packet_line> packets;
    std::ifstream file(document);
    bool inside = false;
    for (std::string line; std::getline(file, line);) {
        if (line == "```") {
            inside = !inside;
            continue;
        }
        if (!inside || line.empty()) {
            continue;
        }
        if (line[0] != ' ') {
            packets.push_back({line[0], {}});
        }
        std::istringstream hex(line.substr(1));
        for (unsigned byte = 0; hex >> std::hex >> byte;) {
            packets.back().bytes.push_back(static_cast<unsigned char>(byte));
        }
    }
    return packets;
}

} // namespace

class ProtocolDocument : public comm_fixture {};

TEST_F(ProtocolDocument, WorkedExchangeMatchesTheService)
{
    plain_item::make_ready(1);
    plain_item::state.percent = 100;
    const packet_client client = connect();
    const std::vector<packet_line> exchange = read_exchange();
    ASSERT_GE(exchange.size(), 12U);
    for (packet_line expected : exchange) {
        if (expected.direction == '>') {
            ASSERT_TRUE(client.send(expected.bytes));
            pump();
            continue;
        }
        const auto answer = client.receive();
        ASSERT_TRUE(answer.has_value()) << to_hex(expected.bytes);
        if (answer->header.type == HELLO_ANSWER) {
            // The process number is the only one that differs between runs.
            const size_t at_pid = packet_header_size + 8;
            std::copy_n(answer->bytes.begin() + at_pid, 4, expected.bytes.begin() + at_pid);
        }
        EXPECT_EQ(to_hex(answer->bytes), to_hex(expected.bytes));
    }
    EXPECT_FALSE(client.receive().has_value());
}
