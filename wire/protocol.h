// Packets between worker and client: constants, messages and their encoding.
// Field by field with a worked exchange: docs/protocol.md.
//
// Every packet is one SOCK_SEQPACKET message: a header of packet_header_size bytes, then a body.
// All numbers are little-endian. Decoding checks every length and leaves *to unspecified when it
// returns false; the caller passes bytes that no other process can change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace comm_protocol {

inline constexpr uint32_t magic = 0x4C495453; // "STIL" as bytes
inline constexpr uint16_t version_major = 1;  // another major version is refused
inline constexpr uint16_t version_minor = 1;  // minor versions only add

inline constexpr size_t packet_header_size = 24;
inline constexpr size_t max_packet_size = 65536;
inline constexpr size_t max_status_part = 32768; // bytes of the document in one STATUS packet
inline constexpr size_t max_packet_text = 1024;  // bytes; longer texts of ERROR and EVENT are cut

// Limits of one connection and of the server. A request beyond them is refused with LIMIT; where
// docs/protocol.md says so, the client is dropped.
inline constexpr size_t max_clients = 4096;
inline constexpr size_t max_pending_requests = 64;
inline constexpr size_t max_held_references = 1024;
inline constexpr size_t guaranteed_references = 64; // of each client, whatever others hold
inline constexpr size_t max_queued_answers = 256;
inline constexpr size_t max_set_metadata_name = 256; // bytes, both; a metadata file may hold more
inline constexpr size_t max_set_metadata_value = 16384;

enum packet_type : uint16_t {
    // requests
    HELLO = 1,
    SET_OUTPUT_SIZE = 2,
    GET_STATUS = 3,
    SUBSCRIBE = 4,
    GET_FRAME = 5,
    RELEASE_FRAME = 6,
    SET_METADATA = 7,
    EXIT = 8,
    PING = 9,
    // answers
    HELLO_ANSWER = 101,
    DONE = 102,   // empty body: the request succeeded
    STATUS = 103, // one part of the status document
    FRAME = 105,
    PONG = 109,
    ERROR = 199,
    // sent on its own after SUBSCRIBE, with the request number of the subscription
    EVENT = 201,
};

enum error_code : int32_t {
    BAD_PACKET = 1,        // malformed; the client is then dropped
    VERSION_MISMATCH = 2,  // the client is then dropped
    UNSUPPORTED = 3,       // unknown request type
    NOT_GREETED = 4,       // a request before HELLO; the client is then dropped
    LIMIT = 5,             // too many pending requests or held references
    NO_SUCH_FRAME = 6,     // the frame does not exist
    NO_SUCH_REFERENCE = 7, // not a reference of this connection
    NO_MEMORY = 8,
    REFUSED_VALUE = 9, // metadata that may not be set
    NOT_READY = 10,    // GET_FRAME without waiting
    GOING_DOWN = 11,
    SLOW_CLIENT = 12, // dropped because it did not read its answers
    NOT_ALLOWED = 13, // dropped because it belongs to another user or to an unknown one
    NOT_STORED = 14,  // set, but lost when the worker ends; since 1.1
};

// Bits of SUBSCRIBE's mask and of EVENT's changes.
inline constexpr uint32_t change_progress = 1U << 0;
inline constexpr uint32_t change_provisional = 1U << 1;
inline constexpr uint32_t change_ready = 1U << 2;
inline constexpr uint32_t change_metadata = 1U << 3;
inline constexpr uint32_t change_going_down = 1U << 4;
inline constexpr uint32_t change_clients = 1U << 5;
// The status document itself, sent as STATUS parts whenever it changes.
inline constexpr uint32_t change_document = 1U << 6;

inline constexpr uint32_t get_frame_wait = 1U << 0; // answer when ready, not with NOT_READY

inline constexpr uint32_t frame_provisional = 1U << 0;
inline constexpr uint32_t frame_has_descriptor = 1U << 1; // comes with the buffer's descriptor

struct packet_header {
    uint32_t magic = comm_protocol::magic;
    uint16_t major = version_major;
    uint16_t minor = version_minor;
    uint16_t type = 0;
    uint16_t reserved = 0;
    uint32_t length = 0;  // header included
    uint64_t request = 0; // chosen by the client, repeated in every answer
};

struct hello {
    uint32_t flags = 0; // 0
};

struct hello_answer {
    uint64_t context_id = 0;
    uint32_t worker_pid = 0;
    uint32_t flags = 0; // 0
};

struct set_output_size {
    int32_t width = 0; // below 1: unknown
    int32_t height = 0;
};

struct subscribe {
    uint32_t mask = 0; // 0 ends the subscription
};

struct get_frame {
    uint64_t time_position = 0; // in units of the item's time scale
    uint32_t flags = 0;
};

struct release_frame {
    uint64_t reference = 0;
};

struct set_metadata {
    std::string_view name;
    std::string_view value;
};

struct ping {
    uint64_t cookie = 0;
};

struct status_part {
    uint32_t total = 0;  // bytes of the document
    uint32_t offset = 0; // of this part
    std::string_view text;
};

struct frame {
    uint64_t reference = 0;
    uint32_t flags = 0;
    uint32_t buffer = 0;
    uint64_t base_offset = 0;
    uint64_t area_size = 0;
    uint64_t scanline_offset = 0;
    uint64_t scanline_size = 0;
    uint64_t frame_number = 0; // 1 for the first
    int32_t width = 0;         // full-size picture
    int32_t height = 0;
    int64_t aspect_numerator = 0;
    int64_t aspect_denominator = 0;
};

struct error {
    int32_t code = 0;
    std::string_view text;
};

struct event {
    uint32_t changes = 0;
    int32_t percent = 0;
    int32_t ready = 0;         // 0 not yet, -1 provisional, 1 final
    std::string_view progress; // progress text
};

using packet_bytes = std::vector<unsigned char>;

// A whole packet, its length filled in. Empty when metadata would exceed max_packet_size or a
// status part exceeds max_status_part.
template <typename message>
packet_bytes encode(uint64_t request, const message& from); // any message but ping
packet_bytes encode_ping(uint64_t request, packet_type ping_or_pong, const ping& message);
packet_bytes encode_empty(uint64_t request, packet_type type); // GET_STATUS, EXIT, DONE

// The header of a received packet. False when the packet is shorter than a header or longer than
// max_packet_size, has another magic, or its length field is not `size`. The version is not
// checked.
bool decode_header(const unsigned char* bytes, size_t size, packet_header* header);

// A body of `size` bytes. Texts of *to point into `bytes`. Bytes after the known fields are
// ignored, since minor versions add fields at the end.
template <typename message>
bool decode(const unsigned char* bytes, size_t size, message* to);

} // namespace comm_protocol
