#include <gtest/gtest.h>

#include "platform/standalone/comm/connection.h"

using namespace comm_protocol;

namespace {

const platform::refusal* judge(const packet_bytes& packet, bool greeted,
                               common_pkt_parsing* request)
{
    return platform::judge_packet(packet.data(), packet.size(), greeted, request);
}

void expect_refused(const platform::refusal* refused, error_code code, bool drop)
{
    ASSERT_NE(refused, nullptr);
    EXPECT_EQ(refused->code, code);
    EXPECT_EQ(refused->drop, drop);
}

} // namespace

TEST(Request, HelloStartsTheConversation)
{
    const packet_bytes packet = encode(5, hello{});
    common_pkt_parsing request;
    EXPECT_EQ(judge(packet, false, &request), nullptr);
    EXPECT_EQ(request.header.request, 5U);
    EXPECT_EQ(request.body, packet.data() + packet_header_size);
    EXPECT_EQ(request.body_size, 4U);
}

TEST(Request, OtherRequestsBeforeHelloAreRefusedAndDropped)
{
    common_pkt_parsing request;
    expect_refused(judge(encode_ping(5, PING, {}), false, &request), NOT_GREETED, true);
    expect_refused(judge(encode_empty(5, static_cast<packet_type>(77)), false, &request),
                   NOT_GREETED, true);
    EXPECT_EQ(request.header.request, 5U);
}

TEST(Request, AfterHelloOtherRequestsAreAccepted)
{
    common_pkt_parsing request;
    EXPECT_EQ(judge(encode_ping(5, PING, {}), true, &request), nullptr);
    EXPECT_EQ(judge(encode_empty(5, static_cast<packet_type>(77)), true, &request), nullptr);
}

TEST(Request, SecondHelloIsRefusedAndDropped)
{
    common_pkt_parsing request;
    expect_refused(judge(encode(5, hello{}), true, &request), BAD_PACKET, true);
}

TEST(Request, OtherMajorVersionIsRefusedUnderItsRequestNumber)
{
    common_pkt_parsing request;
    for (const int major : {0, 2, 127}) {
        packet_bytes packet = encode(9, hello{});
        packet[4] = static_cast<unsigned char>(major);
        expect_refused(judge(packet, false, &request), VERSION_MISMATCH, true);
        EXPECT_EQ(request.header.request, 9U);
        expect_refused(judge(packet, true, &request), VERSION_MISMATCH, true);
    }
}

TEST(Request, LaterMinorVersionIsAccepted)
{
    packet_bytes packet = encode(9, hello{});
    packet[6] = 200;
    common_pkt_parsing request;
    EXPECT_EQ(judge(packet, false, &request), nullptr);
}

TEST(Request, UnreadablePacketHasNoRequestNumber)
{
    packet_bytes packet = encode(9, hello{});
    packet[0] = 0;
    common_pkt_parsing request;
    expect_refused(judge(packet, false, &request), BAD_PACKET, true);
    EXPECT_EQ(request.header.request, 0U);
    expect_refused(judge({}, true, &request), BAD_PACKET, true);
    EXPECT_EQ(request.header.request, 0U);
}

TEST(Request, ReservedFieldIsIgnored)
{
    packet_bytes packet = encode(9, hello{});
    packet[10] = 0xFF;
    common_pkt_parsing request;
    EXPECT_EQ(judge(packet, false, &request), nullptr);
}
