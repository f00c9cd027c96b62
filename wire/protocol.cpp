#include "wire/protocol.h"

#include <array>
#include <tuple>
#include <type_traits>
#include <utility>

#include "wire/utf8.h"

namespace comm_protocol {

namespace {

constexpr size_t at_length = 12;

// Appends to a packet whose header is already there.
class packet_writer {
public:
    packet_writer(uint64_t request, packet_type type, size_t body_size)
    {
        bytes.reserve(packet_header_size + body_size);
        number(magic);
        number(version_major);
        number(version_minor);
        number(static_cast<uint16_t>(type));
        number(uint16_t{0});
        number(static_cast<uint32_t>(packet_header_size));
        number(request);
    }

    template <typename integer>
    void number(integer value)
    {
        const uint64_t bits = static_cast<std::make_unsigned_t<integer>>(value);
        unsigned char field[sizeof(integer)];
        for (size_t i = 0; i < sizeof(integer); ++i) {
            field[i] = static_cast<unsigned char>(bits >> (8 * i));
        }
        bytes.insert(bytes.end(), field, field + sizeof(integer));
    }

    void length_of(std::string_view text) { number(static_cast<uint32_t>(text.size())); }

    void characters(std::string_view text) { bytes.insert(bytes.end(), text.begin(), text.end()); }

    // The whole packet, with its length.
    packet_bytes finish()
    {
        for (size_t i = 0; i < sizeof(uint32_t); ++i) {
            bytes[at_length + i] = static_cast<unsigned char>(bytes.size() >> (8 * i));
        }
        return std::move(bytes);
    }

private:
    packet_bytes bytes;
};

// Reads fields from the front of a body. After a missing field, every later one counts as missing.
class packet_reader {
public:
    packet_reader(const unsigned char* bytes, size_t size) : next(bytes), left(size) {}

    template <typename integer>
    packet_reader& number(integer* value)
    {
        if (left < sizeof(integer)) {
            return fail();
        }
        uint64_t bits = 0;
        for (size_t i = 0; i < sizeof(integer); ++i) {
            bits |= uint64_t{next[i]} << (8 * i);
        }
        *value = static_cast<integer>(bits);
        next += sizeof(integer);
        left -= sizeof(integer);
        return *this;
    }

    packet_reader& characters(uint32_t length, std::string_view* text)
    {
        if (left < length) {
            return fail();
        }
        *text = {reinterpret_cast<const char*>(next), length};
        next += length;
        left -= length;
        return *this;
    }

    [[nodiscard]] bool complete() const { return !failed; }

private:
    packet_reader& fail()
    {
        failed = true;
        left = 0;
        return *this;
    }

    const unsigned char* next;
    size_t left;
    bool failed = false;
};

bool fits(size_t text_size)
{
    return text_size <= max_packet_size;
}

// --- the messages' bodies ------------------------------------------------------------------------

// The members in the order of their bytes: the numbers, the lengths of the texts, the texts.
template <typename numbers_type, typename texts_type>
struct layout {
    packet_type type;
    numbers_type numbers;
    texts_type texts = {};
};
template <typename numbers_type, typename texts_type = std::tuple<>>
layout(packet_type, numbers_type, texts_type = {}) -> layout<numbers_type, texts_type>;

template <typename message>
constexpr auto layout_of = nullptr;

template <>
constexpr auto layout_of<hello> = layout{HELLO, std::tuple(&hello::flags)};
template <>
constexpr auto layout_of<hello_answer> =
    layout{HELLO_ANSWER,
           std::tuple(&hello_answer::context_id, &hello_answer::worker_pid, &hello_answer::flags)};
template <>
constexpr auto layout_of<set_output_size> =
    layout{SET_OUTPUT_SIZE, std::tuple(&set_output_size::width, &set_output_size::height)};
template <>
constexpr auto layout_of<subscribe> = layout{SUBSCRIBE, std::tuple(&subscribe::mask)};
template <>
constexpr auto layout_of<get_frame> =
    layout{GET_FRAME, std::tuple(&get_frame::time_position, &get_frame::flags)};
template <>
constexpr auto layout_of<release_frame> =
    layout{RELEASE_FRAME, std::tuple(&release_frame::reference)};
template <>
constexpr auto layout_of<set_metadata> =
    layout{SET_METADATA, std::tuple(), std::tuple(&set_metadata::name, &set_metadata::value)};
template <>
constexpr auto layout_of<ping> = layout{PING, std::tuple(&ping::cookie)}; // or PONG
template <>
constexpr auto layout_of<status_part> = layout{
    STATUS, std::tuple(&status_part::total, &status_part::offset), std::tuple(&status_part::text)};
template <>
constexpr auto layout_of<frame> =
    layout{FRAME, std::tuple(&frame::reference, &frame::flags, &frame::buffer, &frame::base_offset,
                             &frame::area_size, &frame::scanline_offset, &frame::scanline_size,
                             &frame::frame_number, &frame::width, &frame::height,
                             &frame::aspect_numerator, &frame::aspect_denominator)};
template <>
constexpr auto layout_of<error> = layout{ERROR, std::tuple(&error::code), std::tuple(&error::text)};
template <>
constexpr auto layout_of<event> =
    layout{EVENT, std::tuple(&event::changes, &event::percent, &event::ready),
           std::tuple(&event::progress)};

template <typename message>
size_t body_size(const message& from)
{
    const size_t numbers =
        std::apply([&](auto... field) { return (size_t{0} + ... + sizeof(from.*field)); },
                   layout_of<message>.numbers);
    return std::apply(
        [&](auto... field) { return (numbers + ... + (sizeof(uint32_t) + (from.*field).size())); },
        layout_of<message>.texts);
}

template <typename message>
packet_bytes encode_body(packet_type type, uint64_t request, const message& from)
{
    packet_writer packet(request, type, body_size(from));
    std::apply([&](auto... field) { (packet.number(from.*field), ...); },
               layout_of<message>.numbers);
    std::apply(
        [&](auto... field) {
            (packet.length_of(from.*field), ...);
            (packet.characters(from.*field), ...);
        },
        layout_of<message>.texts);
    return packet.finish();
}

// --- limits of a message -------------------------------------------------------------------------

template <typename message>
bool is_sendable(const message& /*any*/)
{
    return true;
}

bool is_sendable(const set_metadata& message)
{
    return fits(message.name.size()) && fits(message.value.size()) &&
           fits(packet_header_size + body_size(message));
}

bool is_sendable(const status_part& message)
{
    return message.text.size() <= max_status_part;
}

template <typename message>
const message& shortened(const message& whole)
{
    return whole;
}

error shortened(const error& whole)
{
    return {whole.code, wire::truncate_utf8(whole.text, max_packet_text)};
}

event shortened(const event& whole)
{
    return {whole.changes, whole.percent, whole.ready,
            wire::truncate_utf8(whole.progress, max_packet_text)};
}

} // namespace

template <typename message>
packet_bytes encode(uint64_t request, const message& from)
{
    return is_sendable(from) ? encode_body(layout_of<message>.type, request, shortened(from))
                             : packet_bytes();
}
template packet_bytes encode(uint64_t request, const hello& from);
template packet_bytes encode(uint64_t request, const hello_answer& from);
template packet_bytes encode(uint64_t request, const set_output_size& from);
template packet_bytes encode(uint64_t request, const subscribe& from);
template packet_bytes encode(uint64_t request, const get_frame& from);
template packet_bytes encode(uint64_t request, const release_frame& from);
template packet_bytes encode(uint64_t request, const set_metadata& from);
template packet_bytes encode(uint64_t request, const status_part& from);
template packet_bytes encode(uint64_t request, const frame& from);
template packet_bytes encode(uint64_t request, const error& from);
template packet_bytes encode(uint64_t request, const event& from);

packet_bytes encode_ping(uint64_t request, packet_type ping_or_pong, const ping& message)
{
    return encode_body(ping_or_pong, request, message);
}

packet_bytes encode_empty(uint64_t request, packet_type type)
{
    return packet_writer(request, type, 0).finish();
}

bool decode_header(const unsigned char* bytes, size_t size, packet_header* header)
{
    if (size > max_packet_size) {
        return false;
    }
    packet_reader fields(bytes, size);
    fields.number(&header->magic)
        .number(&header->major)
        .number(&header->minor)
        .number(&header->type)
        .number(&header->reserved)
        .number(&header->length)
        .number(&header->request);
    return fields.complete() && header->magic == magic && header->length == size;
}

template <typename message>
bool decode(const unsigned char* bytes, size_t size, message* to)
{
    packet_reader body(bytes, size);
    std::apply([&](auto... field) { (body.number(&(to->*field)), ...); },
               layout_of<message>.numbers);
    std::apply(
        [&](auto... field) {
            std::array<uint32_t, sizeof...(field)> lengths = {};
            size_t filled = 0;
            for (uint32_t& length : lengths) {
                body.number(&length);
            }
            (body.characters(lengths[filled++], &(to->*field)), ...);
        },
        layout_of<message>.texts);
    return body.complete();
}
template bool decode(const unsigned char* bytes, size_t size, hello* to);
template bool decode(const unsigned char* bytes, size_t size, hello_answer* to);
template bool decode(const unsigned char* bytes, size_t size, set_output_size* to);
template bool decode(const unsigned char* bytes, size_t size, subscribe* to);
template bool decode(const unsigned char* bytes, size_t size, get_frame* to);
template bool decode(const unsigned char* bytes, size_t size, release_frame* to);
template bool decode(const unsigned char* bytes, size_t size, set_metadata* to);
template bool decode(const unsigned char* bytes, size_t size, ping* to);
template bool decode(const unsigned char* bytes, size_t size, status_part* to);
template bool decode(const unsigned char* bytes, size_t size, frame* to);
template bool decode(const unsigned char* bytes, size_t size, error* to);
template bool decode(const unsigned char* bytes, size_t size, event* to);

} // namespace comm_protocol
