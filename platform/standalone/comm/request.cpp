#include "platform/standalone/comm/request.h"

namespace platform {

using namespace comm_protocol;

const refusal malformed_packet = {BAD_PACKET, true, "malformed packet"};
const refusal unknown_request = {UNSUPPORTED, false, "unknown request"};

namespace {

const refusal other_version = {VERSION_MISMATCH, true, "this worker speaks protocol version 1"};
const refusal not_greeted = {NOT_GREETED, true, "the first request must be a hello"};
const refusal greeted_twice = {BAD_PACKET, true, "a second hello"};

static_assert(version_major == 1, "the text above names the version");

} // namespace

const refusal* judge_packet(const unsigned char* bytes, size_t size, bool greeted,
                            common_pkt_parsing* request)
{
    *request = {};
    if (!decode_header(bytes, size, &request->header)) {
        request->header.request = 0;
        return &malformed_packet;
    }
    request->body = bytes + packet_header_size;
    request->body_size = size - packet_header_size;
    if (request->header.major != version_major) {
        return &other_version;
    }
    if ((request->header.type == HELLO) != greeted) {
        return nullptr;
    }
    return greeted ? &greeted_twice : &not_greeted;
}

} // namespace platform
