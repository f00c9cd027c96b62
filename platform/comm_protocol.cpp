#include "platform/comm_protocol.h"

#include <type_traits>
#include <utility>

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

    // The whole packet, its length filled in.
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

// Takes fields from the front of a body. Once a field is missing, every later one is, too.
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

// The text's first max_packet_text bytes, not ending inside a UTF-8 character.
std::string_view cut(std::string_view text)
{
    if (text.size() <= max_packet_text) {
        return text;
    }
    size_t end = max_packet_text;
    while (end > max_packet_text - 3 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;
    }
    return text.substr(0, end);
}

} // namespace

packet_bytes encode(uint64_t request, const hello& message)
{
    packet_writer packet(request, HELLO, 4);
    packet.number(message.flags);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const hello_answer& message)
{
    packet_writer packet(request, HELLO_ANSWER, 16);
    packet.number(message.context_id);
    packet.number(message.worker_pid);
    packet.number(message.flags);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const set_output_size& message)
{
    packet_writer packet(request, SET_OUTPUT_SIZE, 8);
    packet.number(message.width);
    packet.number(message.height);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const subscribe& message)
{
    packet_writer packet(request, SUBSCRIBE, 4);
    packet.number(message.mask);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const get_frame& message)
{
    packet_writer packet(request, GET_FRAME, 12);
    packet.number(message.time_position);
    packet.number(message.flags);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const release_frame& message)
{
    packet_writer packet(request, RELEASE_FRAME, 8);
    packet.number(message.reference);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const set_metadata& message)
{
    if (!fits(message.name.size()) || !fits(message.value.size())) {
        return {};
    }
    packet_writer packet(request, SET_METADATA, 8 + message.name.size() + message.value.size());
    packet.length_of(message.name);
    packet.length_of(message.value);
    packet.characters(message.name);
    packet.characters(message.value);
    packet_bytes bytes = packet.finish();
    return fits(bytes.size()) ? bytes : packet_bytes();
}

packet_bytes encode(uint64_t request, const status_part& message)
{
    if (message.text.size() > max_status_part) {
        return {};
    }
    packet_writer packet(request, STATUS, 12 + message.text.size());
    packet.number(message.total);
    packet.number(message.offset);
    packet.length_of(message.text);
    packet.characters(message.text);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const frame& message)
{
    packet_writer packet(request, FRAME, 80);
    packet.number(message.reference);
    packet.number(message.flags);
    packet.number(message.buffer);
    packet.number(message.base_offset);
    packet.number(message.area_size);
    packet.number(message.scanline_offset);
    packet.number(message.scanline_size);
    packet.number(message.frame_number);
    packet.number(message.width);
    packet.number(message.height);
    packet.number(message.aspect_numerator);
    packet.number(message.aspect_denominator);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const error& message)
{
    const std::string_view text = cut(message.text);
    packet_writer packet(request, ERROR, 8 + text.size());
    packet.number(message.code);
    packet.length_of(text);
    packet.characters(text);
    return packet.finish();
}

packet_bytes encode(uint64_t request, const event& message)
{
    const std::string_view text = cut(message.progress);
    packet_writer packet(request, EVENT, 16 + text.size());
    packet.number(message.changes);
    packet.number(message.percent);
    packet.number(message.ready);
    packet.length_of(text);
    packet.characters(text);
    return packet.finish();
}

packet_bytes encode_ping(uint64_t request, packet_type ping_or_pong, const ping& message)
{
    packet_writer packet(request, ping_or_pong, 8);
    packet.number(message.cookie);
    return packet.finish();
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

bool decode(const unsigned char* bytes, size_t size, hello* message)
{
    return packet_reader(bytes, size).number(&message->flags).complete();
}

bool decode(const unsigned char* bytes, size_t size, hello_answer* message)
{
    return packet_reader(bytes, size)
        .number(&message->context_id)
        .number(&message->worker_pid)
        .number(&message->flags)
        .complete();
}

bool decode(const unsigned char* bytes, size_t size, set_output_size* message)
{
    return packet_reader(bytes, size).number(&message->width).number(&message->height).complete();
}

bool decode(const unsigned char* bytes, size_t size, subscribe* message)
{
    return packet_reader(bytes, size).number(&message->mask).complete();
}

bool decode(const unsigned char* bytes, size_t size, get_frame* message)
{
    return packet_reader(bytes, size)
        .number(&message->time_position)
        .number(&message->flags)
        .complete();
}

bool decode(const unsigned char* bytes, size_t size, release_frame* message)
{
    return packet_reader(bytes, size).number(&message->reference).complete();
}

bool decode(const unsigned char* bytes, size_t size, set_metadata* message)
{
    uint32_t name_length = 0;
    uint32_t value_length = 0;
    return packet_reader(bytes, size)
        .number(&name_length)
        .number(&value_length)
        .characters(name_length, &message->name)
        .characters(value_length, &message->value)
        .complete();
}

bool decode(const unsigned char* bytes, size_t size, ping* message)
{
    return packet_reader(bytes, size).number(&message->cookie).complete();
}

bool decode(const unsigned char* bytes, size_t size, status_part* message)
{
    uint32_t length = 0;
    return packet_reader(bytes, size)
        .number(&message->total)
        .number(&message->offset)
        .number(&length)
        .characters(length, &message->text)
        .complete();
}

bool decode(const unsigned char* bytes, size_t size, frame* message)
{
    return packet_reader(bytes, size)
        .number(&message->reference)
        .number(&message->flags)
        .number(&message->buffer)
        .number(&message->base_offset)
        .number(&message->area_size)
        .number(&message->scanline_offset)
        .number(&message->scanline_size)
        .number(&message->frame_number)
        .number(&message->width)
        .number(&message->height)
        .number(&message->aspect_numerator)
        .number(&message->aspect_denominator)
        .complete();
}

bool decode(const unsigned char* bytes, size_t size, error* message)
{
    uint32_t length = 0;
    return packet_reader(bytes, size)
        .number(&message->code)
        .number(&length)
        .characters(length, &message->text)
        .complete();
}

bool decode(const unsigned char* bytes, size_t size, event* message)
{
    uint32_t length = 0;
    return packet_reader(bytes, size)
        .number(&message->changes)
        .number(&message->percent)
        .number(&message->ready)
        .number(&length)
        .characters(length, &message->progress)
        .complete();
}

} // namespace comm_protocol
