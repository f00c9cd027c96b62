#include <gtest/gtest.h>

#include "tests/support/packet_client.h"
#include "wire/protocol.h"

using namespace comm_protocol;

namespace {

// The header of a packet of this type and length, in hexadecimal. The request number is
// 0x0807060504030201.
std::string header_hex(const char* type, const char* length)
{
    return std::string("53 54 49 4C 01 00 01 00 ") + type + " 00 00 " + length +
           " 00 00 01 02 03 04 05 06 07 08";
}

constexpr uint64_t request = 0x0807060504030201;

template <typename message>
bool decode_packet(const packet_bytes& packet, message* body)
{
    return decode(packet.data() + packet_header_size, packet.size() - packet_header_size, body);
}

// Expects that a body truncated anywhere is refused, and one with extra bytes is accepted.
template <typename message>
void expect_exact_length(const packet_bytes& packet)
{
    for (size_t size = 0; size + packet_header_size < packet.size(); ++size) {
        message body;
        EXPECT_FALSE(decode(packet.data() + packet_header_size, size, &body)) << size;
    }
    packet_bytes longer = packet;
    longer.insert(longer.end(), {1, 2, 3});
    message body;
    EXPECT_TRUE(decode_packet(longer, &body));
}

} // namespace

TEST(CommProtocol, HelloBytes)
{
    EXPECT_EQ(to_hex(encode(request, hello{0x11223344})),
              header_hex("01 00", "1C 00") + " 44 33 22 11");
}

TEST(CommProtocol, HelloAnswerBytes)
{
    EXPECT_EQ(to_hex(encode(request, hello_answer{0x1122334455667788, 0xAABBCCDD, 0x01020304})),
              header_hex("65 00", "28 00") + " 88 77 66 55 44 33 22 11 DD CC BB AA 04 03 02 01");
}

TEST(CommProtocol, SetOutputSizeBytes)
{
    EXPECT_EQ(to_hex(encode(request, set_output_size{1920, -2})),
              header_hex("02 00", "20 00") + " 80 07 00 00 FE FF FF FF");
}

TEST(CommProtocol, SubscribeBytes)
{
    EXPECT_EQ(to_hex(encode(request, subscribe{change_ready | change_document})),
              header_hex("04 00", "1C 00") + " 44 00 00 00");
}

TEST(CommProtocol, GetFrameBytes)
{
    EXPECT_EQ(to_hex(encode(request, get_frame{0x0102030405060708, get_frame_wait})),
              header_hex("05 00", "24 00") + " 08 07 06 05 04 03 02 01 01 00 00 00");
}

TEST(CommProtocol, ReleaseFrameBytes)
{
    EXPECT_EQ(to_hex(encode(request, release_frame{9})),
              header_hex("06 00", "20 00") + " 09 00 00 00 00 00 00 00");
}

TEST(CommProtocol, SetMetadataBytes)
{
    EXPECT_EQ(to_hex(encode(request, set_metadata{"ab", "xyz"})),
              header_hex("07 00", "25 00") + " 02 00 00 00 03 00 00 00 61 62 78 79 7A");
}

TEST(CommProtocol, PingAndPongBytes)
{
    EXPECT_EQ(to_hex(encode_ping(request, PING, {0x77})),
              header_hex("09 00", "20 00") + " 77 00 00 00 00 00 00 00");
    EXPECT_EQ(to_hex(encode_ping(request, PONG, {0x77})),
              header_hex("6D 00", "20 00") + " 77 00 00 00 00 00 00 00");
}

TEST(CommProtocol, EmptyPacketsAreOnlyHeaders)
{
    EXPECT_EQ(to_hex(encode_empty(request, GET_STATUS)), header_hex("03 00", "18 00"));
    EXPECT_EQ(to_hex(encode_empty(request, EXIT)), header_hex("08 00", "18 00"));
    EXPECT_EQ(to_hex(encode_empty(request, DONE)), header_hex("66 00", "18 00"));
}

TEST(CommProtocol, StatusBytes)
{
    EXPECT_EQ(to_hex(encode(request, status_part{300, 256, "{}"})),
              header_hex("67 00", "26 00") + " 2C 01 00 00 00 01 00 00 02 00 00 00 7B 7D");
}

TEST(CommProtocol, FrameBytes)
{
    frame message;
    message.reference = 0x10;
    message.flags = frame_provisional | frame_has_descriptor;
    message.buffer = 0x2021;
    message.base_offset = 0x30;
    message.area_size = 0x4041424344454647;
    message.scanline_offset = 0x50;
    message.scanline_size = 197;
    message.frame_number = 3;
    message.width = 640;
    message.height = 480;
    message.aspect_numerator = -16;
    message.aspect_denominator = 9;
    EXPECT_EQ(to_hex(encode(request, message)),
              header_hex("69 00", "68 00") + " 10 00 00 00 00 00 00 00 03 00 00 00 21 20 00 00"
                                             " 30 00 00 00 00 00 00 00 47 46 45 44 43 42 41 40"
                                             " 50 00 00 00 00 00 00 00 C5 00 00 00 00 00 00 00"
                                             " 03 00 00 00 00 00 00 00 80 02 00 00 E0 01 00 00"
                                             " F0 FF FF FF FF FF FF FF 09 00 00 00 00 00 00 00");
}

TEST(CommProtocol, ErrorBytes)
{
    EXPECT_EQ(to_hex(encode(request, error{NOT_READY, "no"})),
              header_hex("C7 00", "22 00") + " 0A 00 00 00 02 00 00 00 6E 6F");
}

TEST(CommProtocol, EventBytes)
{
    EXPECT_EQ(to_hex(encode(request, event{change_progress | change_clients, 40, -1, "PNG"})),
              header_hex("C9 00", "2B 00") +
                  " 21 00 00 00 28 00 00 00 FF FF FF FF 03 00 00 00 50 4E 47");
}

TEST(CommProtocol, ErrorCodesAndChangesKeepTheirNumbers)
{
    EXPECT_EQ(BAD_PACKET, 1);
    EXPECT_EQ(VERSION_MISMATCH, 2);
    EXPECT_EQ(UNSUPPORTED, 3);
    EXPECT_EQ(NOT_GREETED, 4);
    EXPECT_EQ(LIMIT, 5);
    EXPECT_EQ(NO_SUCH_FRAME, 6);
    EXPECT_EQ(NO_SUCH_REFERENCE, 7);
    EXPECT_EQ(NO_MEMORY, 8);
    EXPECT_EQ(REFUSED_VALUE, 9);
    EXPECT_EQ(NOT_READY, 10);
    EXPECT_EQ(GOING_DOWN, 11);
    EXPECT_EQ(SLOW_CLIENT, 12);
    EXPECT_EQ(NOT_ALLOWED, 13);
    EXPECT_EQ(change_progress, 1U);
    EXPECT_EQ(change_provisional, 2U);
    EXPECT_EQ(change_ready, 4U);
    EXPECT_EQ(change_metadata, 8U);
    EXPECT_EQ(change_going_down, 16U);
    EXPECT_EQ(change_clients, 32U);
    EXPECT_EQ(change_document, 64U);
}

TEST(CommProtocol, BodiesOfFixedSizeAreDecoded)
{
    hello_answer greeting;
    ASSERT_TRUE(decode_packet(encode(1, hello_answer{5, 6, 7}), &greeting));
    EXPECT_EQ(greeting.context_id, 5U);
    EXPECT_EQ(greeting.worker_pid, 6U);
    EXPECT_EQ(greeting.flags, 7U);
    set_output_size size;
    ASSERT_TRUE(decode_packet(encode(1, set_output_size{INT32_MIN, INT32_MAX}), &size));
    EXPECT_EQ(size.width, INT32_MIN);
    EXPECT_EQ(size.height, INT32_MAX);
    get_frame wanted;
    ASSERT_TRUE(decode_packet(encode(1, get_frame{UINT64_MAX, 1}), &wanted));
    EXPECT_EQ(wanted.time_position, UINT64_MAX);
    EXPECT_EQ(wanted.flags, 1U);
}

TEST(CommProtocol, FrameIsDecoded)
{
    frame sent;
    sent.reference = 1;
    sent.flags = 2;
    sent.buffer = 3;
    sent.base_offset = 4;
    sent.area_size = 5;
    sent.scanline_offset = 6;
    sent.scanline_size = 7;
    sent.frame_number = 8;
    sent.width = -9;
    sent.height = 10;
    sent.aspect_numerator = INT64_MIN;
    sent.aspect_denominator = INT64_MAX;
    frame got;
    ASSERT_TRUE(decode_packet(encode(1, sent), &got));
    EXPECT_EQ(to_hex(encode(1, got)), to_hex(encode(1, sent)));
}

TEST(CommProtocol, TextsAreDecoded)
{
    const packet_bytes setting = encode(1, set_metadata{"name", std::string_view("a\0b", 3)});
    set_metadata set;
    ASSERT_TRUE(decode_packet(setting, &set));
    EXPECT_EQ(set.name, "name");
    EXPECT_EQ(set.value, std::string_view("a\0b", 3));
    const packet_bytes part = encode(1, status_part{9, 4, "part"});
    status_part status;
    ASSERT_TRUE(decode_packet(part, &status));
    EXPECT_EQ(status.total, 9U);
    EXPECT_EQ(status.offset, 4U);
    EXPECT_EQ(status.text, "part");
    const packet_bytes news = encode(1, event{1, -1, 1, "text"});
    event happened;
    ASSERT_TRUE(decode_packet(news, &happened));
    EXPECT_EQ(happened.percent, -1);
    EXPECT_EQ(happened.ready, 1);
    EXPECT_EQ(happened.progress, "text");
}

TEST(CommProtocol, TruncatedBodiesAreRefusedAndLongerOnesAccepted)
{
    expect_exact_length<hello>(encode(1, hello()));
    expect_exact_length<hello_answer>(encode(1, hello_answer()));
    expect_exact_length<set_output_size>(encode(1, set_output_size()));
    expect_exact_length<subscribe>(encode(1, subscribe()));
    expect_exact_length<get_frame>(encode(1, get_frame()));
    expect_exact_length<release_frame>(encode(1, release_frame()));
    expect_exact_length<set_metadata>(encode(1, set_metadata{"ab", "cd"}));
    expect_exact_length<ping>(encode_ping(1, PING, {}));
    expect_exact_length<status_part>(encode(1, status_part{4, 0, "text"}));
    expect_exact_length<frame>(encode(1, frame()));
    expect_exact_length<error>(encode(1, error{1, "text"}));
    expect_exact_length<event>(encode(1, event{1, 2, 0, "text"}));
}

TEST(CommProtocol, TextLengthBeyondTheBodyIsRefused)
{
    packet_bytes packet = encode(1, set_metadata{"ab", "cd"});
    packet[packet_header_size + 7] = 0xFF; // the highest byte of the value length
    set_metadata body;
    EXPECT_FALSE(decode_packet(packet, &body));
}

TEST(CommProtocol, HeaderIsDecoded)
{
    const packet_bytes packet = encode(request, hello());
    packet_header header;
    ASSERT_TRUE(decode_header(packet.data(), packet.size(), &header));
    EXPECT_EQ(header.major, version_major);
    EXPECT_EQ(header.minor, version_minor);
    EXPECT_EQ(header.type, HELLO);
    EXPECT_EQ(header.length, packet.size());
    EXPECT_EQ(header.request, request);
}

TEST(CommProtocol, HeaderOfAnotherVersionIsDecoded)
{
    packet_bytes packet = encode(request, hello());
    packet[4] = 2;
    packet_header header;
    ASSERT_TRUE(decode_header(packet.data(), packet.size(), &header));
    EXPECT_EQ(header.major, 2);
}

TEST(CommProtocol, ShortHeaderWrongMagicAndWrongLengthAreRefused)
{
    const packet_bytes packet = encode(1, hello());
    packet_header header;
    for (size_t size = 0; size < packet_header_size; ++size) {
        EXPECT_FALSE(decode_header(packet.data(), size, &header)) << size;
    }
    EXPECT_FALSE(decode_header(packet.data(), packet.size() - 1, &header));
    packet_bytes other_magic = packet;
    other_magic[0] ^= 1U;
    EXPECT_FALSE(decode_header(other_magic.data(), other_magic.size(), &header));
    packet_bytes other_length = packet;
    ++other_length[12];
    EXPECT_FALSE(decode_header(other_length.data(), other_length.size(), &header));
}

TEST(CommProtocol, LargestPacketIsAcceptedAndOneByteMoreRefused)
{
    const std::string value(max_packet_size - packet_header_size - 8 - 1, 'v');
    const packet_bytes largest = encode(1, set_metadata{"n", value});
    EXPECT_EQ(largest.size(), max_packet_size);
    packet_header header;
    EXPECT_TRUE(decode_header(largest.data(), largest.size(), &header));
    EXPECT_TRUE(encode(1, set_metadata{"nn", value}).empty());
    packet_bytes larger = largest;
    larger.push_back(0);
    larger[12] = 1; // a length of 65537
    EXPECT_FALSE(decode_header(larger.data(), larger.size(), &header));
}

TEST(CommProtocol, MetadataAndStatusBeyondTheirLimitsGiveNoPacket)
{
    EXPECT_TRUE(encode(1, set_metadata{std::string(max_packet_size + 1, 'n'), ""}).empty());
    EXPECT_TRUE(encode(1, set_metadata{"", std::string(max_packet_size + 1, 'v')}).empty());
    EXPECT_FALSE(encode(1, status_part{0, 0, std::string(max_status_part, 's')}).empty());
    EXPECT_TRUE(encode(1, status_part{0, 0, std::string(max_status_part + 1, 's')}).empty());
}

TEST(CommProtocol, LongTextsAreTruncatedBetweenCharacters)
{
    const std::string exact(max_packet_text, 'e');
    const packet_bytes kept = encode(1, error{1, exact});
    error got;
    ASSERT_TRUE(decode_packet(kept, &got));
    EXPECT_EQ(got.text, exact);
    const std::string longer = std::string(max_packet_text - 1, 'e') + "\xE2\x82\xAC";
    const packet_bytes cut = encode(1, error{1, longer});
    ASSERT_TRUE(decode_packet(cut, &got));
    EXPECT_EQ(got.text, std::string(max_packet_text - 1, 'e'));
    const packet_bytes not_text = encode(1, event{0, 0, 0, std::string(5000, '\x80')});
    event happened;
    ASSERT_TRUE(decode_packet(not_text, &happened));
    EXPECT_EQ(happened.progress.size(), max_packet_text - 3);
}
