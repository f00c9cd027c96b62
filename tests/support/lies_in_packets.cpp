// Lies in the status document, and packets that break the protocol or never come.
#include <climits>
#include <string>

#include "tests/support/forged_worker.h"

using namespace comm_protocol;

namespace {

// What a terminal must not receive: a change of colour and of title, both forms of C1 controls, an
// override of the direction of writing, and bytes that are no UTF-8.
const std::string hostile_text = "\x1B[31mred\x1B]0;title\x07 \xC2\x9B"
                                 "1m \x9B"
                                 "2m \x7F \xE2\x80\xAE"
                                 "abc\xFF\xC3 end\r\n";

std::string item(const std::string& members)
{
    return R"({"item":{)" + members + R"(},"process":{"examined":true}})";
}

std::string repeated(std::string_view text, size_t times)
{
    std::string all;
    for (size_t i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

lie document(const char* name, const std::string& text)
{
    return {name, [text](forged_answers& answers) { answers.document = text; }, true};
}

using replier = std::function<void(fake_peer&, uint64_t request)>;

// Answers each request of a type in its own way.
lie reply(const char* name, packet_type type, const replier& send)
{
    return {name, [=](forged_answers& answers) {
                answers.instead = [=](forged_answers&, fake_peer& peer,
                                      const packet_header& header) {
                    if (header.type == type) {
                        send(peer, header.request);
                    }
                    return header.type == type;
                };
            }};
}

// Sends something before each answer.
lie before_answers(const char* name, const replier& send)
{
    return {name,
            [=](forged_answers& answers) {
                answers.instead = [=](forged_answers&, fake_peer& peer,
                                      const packet_header& header) {
                    send(peer, header.request);
                    return false;
                };
            },
            true};
}

lie shown(lie told)
{
    told.shows_frames = true;
    return told;
}

bool is_needed_for_frames(packet_type type)
{
    return type == HELLO || type == GET_FRAME;
}

lie silence(const char* name, packet_type type)
{
    lie told = reply(name, type, [](fake_peer&, uint64_t) {});
    told.shows_frames = !is_needed_for_frames(type);
    told.silent = true;
    return told;
}

lie hang_up(const char* name, packet_type type)
{
    lie told = reply(name, type, [](fake_peer& peer, uint64_t) { peer.hang_up(); });
    told.shows_frames = !is_needed_for_frames(type);
    return told;
}

// A whole answer to GET_FRAME with some bytes of it changed.
lie changed_frame(const char* name, const std::function<void(packet_bytes&)>& change)
{
    return reply(name, GET_FRAME, [change](fake_peer& peer, uint64_t request) {
        packet_bytes packet = encode(request, frame_sample().message);
        change(packet);
        peer.send(packet);
    });
}

void put_length(packet_bytes& packet)
{
    for (size_t i = 0; i < 4; ++i) {
        packet[12 + i] = static_cast<unsigned char>(packet.size() >> (8 * i));
    }
}

replier error_packet(int32_t code, const std::string& text)
{
    return [=](fake_peer& peer, uint64_t request) {
        peer.send(encode(request, error{code, text}));
    };
}

// An error whose text is longer than a worker's.
void send_long_error(fake_peer& peer, uint64_t request)
{
    packet_bytes packet = encode(request, error{REFUSED_VALUE, ""});
    const std::string text = repeated("\x1B[2J", 10'000);
    packet.insert(packet.end(), text.begin(), text.end());
    for (size_t i = 0; i < 4; ++i) {
        packet[packet_header_size + 4 + i] = static_cast<unsigned char>(text.size() >> (8 * i));
    }
    put_length(packet);
    peer.send(packet);
}

void send_many_descriptors(fake_peer& peer, uint64_t request)
{
    const frame_sample sample;
    for (int i = 0; i < 100; ++i) {
        const int fd = sealed_memory(sample.area);
        peer.send_with_descriptor(encode(request + 1'000'000, sample.message), fd);
        close(fd);
    }
}

void send_many_events(fake_peer& peer, uint64_t request)
{
    for (int i = 0; i < 500; ++i) {
        peer.send(encode(request, event{UINT_MAX, INT_MIN, INT_MAX, hostile_text}));
    }
}

} // namespace

std::vector<lie> lies_about_documents()
{
    const auto part = [](uint32_t total, uint32_t offset, const std::string& text) {
        return [=](fake_peer& peer, uint64_t request) {
            peer.send(encode(request, status_part{total, offset, text}));
        };
    };
    return {
        document("DocumentThatIsEmpty", ""),
        document("DocumentThatIsNoJson", "no JSON at all"),
        document("DocumentWithoutMembers", "{}"),
        document("DocumentThatIsNested", repeated("[", 300'000)),
        document("DocumentOfNestedObjects", repeated(R"({"item":)", 100'000)),
        document("DocumentWithoutEnd", item(R"("file":"\)")),
        document("DocumentOfControls", hostile_text + item(R"("file":")" + hostile_text + '"')),
        document("DocumentWithAZero", std::string("{\"item\":\0{}}", 12)),
        document("DocumentWithALargeNumber", item(R"("time duration":1e300,"time scale":[1,1])")),
        document("DocumentOfTheLongestTime",
                 item(R"("time duration":1000000000000000,"time scale":[4294967295,1])")),
        document("DocumentOfNoTime", item(R"("time duration":0,"time scale":[0,0])")),
        document("DocumentOfNegativeTime", item(R"("time duration":-1,"time scale":[-1,-1])")),
        document("DocumentOf3MiB", item(R"("file":")" + std::string(3 << 20, 'x') + '"')),
        shown(reply("DocumentOfMoreThan16MiB", GET_STATUS, part(UINT_MAX, 0, "{"))),
        shown(reply("DocumentPartBeyondItsEnd", GET_STATUS, part(4, 0, "{\"a\":1}"))),
        shown(reply("DocumentPartAfterAGap", GET_STATUS, part(100, 50, "{}"))),
        shown(reply("DocumentPartAtTheLastOffset", GET_STATUS, part(100, UINT_MAX, "{}"))),
        shown(reply("DocumentPartWithoutText", GET_STATUS, part(100, 0, ""))),
    };
}

std::vector<lie> lies_in_packets()
{
    return {
        changed_frame("PacketWithoutMagic", [](auto& packet) { packet[0] = 0; }),
        changed_frame("PacketOfAnotherVersion", [](auto& packet) { packet[4] = 2; }),
        changed_frame("PacketWithAWrongLength", [](auto& packet) { ++packet[12]; }),
        changed_frame("PacketShorterThanAHeader", [](auto& packet) { packet.resize(10); }),
        changed_frame("FrameThatIsCut",
                      [](auto& packet) {
                          packet.resize(packet.size() - 1);
                          put_length(packet);
                      }),
        changed_frame("PacketThatIsTooLarge",
                      [](auto& packet) {
                          packet.resize(max_packet_size + 1000);
                          put_length(packet);
                      }),
        changed_frame("AnotherKindOfAnswer", [](auto& packet) { packet[8] = PONG; }),
        changed_frame("UnknownKindOfAnswer", [](auto& packet) { packet[8] = 77; }),
        reply("DoneInsteadOfAFrame", GET_FRAME,
              [](fake_peer& peer, uint64_t request) { peer.send(encode_empty(request, DONE)); }),
        reply("ErrorOfControls", GET_FRAME, error_packet(NO_MEMORY, hostile_text)),
        reply("UnknownError", GET_FRAME, error_packet(INT_MIN, hostile_text)),
        reply("LongError", GET_FRAME, send_long_error),
        shown(reply("RefusalOfControls", SET_METADATA, error_packet(REFUSED_VALUE, hostile_text))),
        shown(reply("ErrorWithoutARequest", GET_STATUS,
                    [](fake_peer& peer, uint64_t) {
                        peer.send(encode(0, error{SLOW_CLIENT, hostile_text}));
                        peer.hang_up();
                    })),
        before_answers("FramesThatNobodyWanted", send_many_descriptors),
        before_answers("EventsThatNobodyWanted", send_many_events),
        hang_up("EndAtTheGreeting", HELLO),
        hang_up("EndAtTheSubscription", SUBSCRIBE),
        hang_up("EndAtTheStatus", GET_STATUS),
        hang_up("EndAtTheFrame", GET_FRAME),
        silence("SilenceAtTheGreeting", HELLO),
        silence("SilenceAtTheSubscription", SUBSCRIBE),
        silence("SilenceAtTheStatus", GET_STATUS),
        silence("SilenceAtTheFrame", GET_FRAME),
    };
}
