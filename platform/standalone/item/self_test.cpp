// The platform's self-test: basic functions, tested once at start-up.
#include <cstring>
#include <string>

#include <json11.hpp>

#include "platform/settings.h"
#include "platform/start_up.h"
#include "platform/time.h"
#include "wire/protocol.h"
#include "wire/utf8.h"

namespace platform {

namespace {

bool clock_goes_on()
{
    const uint64_t before = monotonic_clock_us();
    return before != 0 && monotonic_clock_us() >= before;
}

bool text_survives_json()
{
    const std::string text = wire::to_utf8("a\"\\\n\x1B\xFF\xE2\x82\xAC");
    std::string error;
    const json11::Json read = json11::Json::parse(json11::Json(text).dump(), error);
    return wire::is_utf8(text) && error.empty() && read.string_value() == text;
}

bool packets_survive()
{
    comm_protocol::packet_header header;
    comm_protocol::get_frame request;
    const comm_protocol::packet_bytes packet =
        comm_protocol::encode(7, comm_protocol::get_frame{.time_position = 5, .flags = 1});
    return comm_protocol::decode_header(packet.data(), packet.size(), &header) &&
           header.request == 7 && header.type == comm_protocol::GET_FRAME &&
           comm_protocol::decode(packet.data() + comm_protocol::packet_header_size,
                                 packet.size() - comm_protocol::packet_header_size, &request) &&
           request.time_position == 5 && request.flags == 1;
}

bool ratios_are_read()
{
    int_rational ratio = {};
    return vexa_parse_int_rational(&ratio, "16:9") == 0 && ratio.numerator == 16 &&
           ratio.denominator == 9 && vexa_parse_int_rational(&ratio, "16:") != 0;
}

} // namespace

} // namespace platform

using namespace platform;

int vexa_self_test()
{
    for (bool (*const passes)() :
         {clock_goes_on, text_survives_json, packets_survive, ratios_are_read}) {
        if (!passes()) {
            return -1;
        }
    }
    return 0;
}
