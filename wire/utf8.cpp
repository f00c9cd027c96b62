#include "wire/utf8.h"

#include <array>
#include <cstdint>

namespace wire {

namespace {

struct sequence_form {
    unsigned char lead_mask;
    unsigned char lead;
    uint32_t min_number; // the smallest that needs this many bytes
};

constexpr std::array<sequence_form, 4> sequence_forms = {{
    {.lead_mask = 0x80, .lead = 0x00, .min_number = 0},
    {.lead_mask = 0xE0, .lead = 0xC0, .min_number = 0x80},
    {.lead_mask = 0xF0, .lead = 0xE0, .min_number = 0x800},
    {.lead_mask = 0xF8, .lead = 0xF0, .min_number = 0x10000},
}};

bool continues_sequence(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

bool is_scalar(uint32_t number)
{
    return number <= 0x10FFFF && (number < 0xD800 || number > 0xDFFF);
}

// The number that a sequence of `length` bytes encodes; beyond Unicode when a byte is wrong.
uint32_t sequence_number(std::string_view text, size_t length)
{
    constexpr uint32_t invalid = UINT32_MAX;
    const auto lead = static_cast<unsigned char>(text[0]);
    uint32_t number = lead & static_cast<unsigned char>(~sequence_forms[length - 1].lead_mask);
    for (size_t i = 1; i < length; ++i) {
        if (!continues_sequence(text[i])) {
            return invalid;
        }
        number = number << 6U | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    return number;
}

std::string escape(std::string_view text, std::string_view backslash)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const size_t length = utf8_sequence_length(text);
        const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || is_control(sequence)) {
            append_hex_escapes(&out, sequence);
        } else {
            out += sequence == "\\" ? backslash : sequence;
        }
        text.remove_prefix(sequence.size());
    }
    return out;
}

} // namespace

size_t utf8_sequence_length(std::string_view text)
{
    for (size_t length = 1; length <= sequence_forms.size() && length <= text.size(); ++length) {
        const sequence_form& form = sequence_forms[length - 1];
        if ((static_cast<unsigned char>(text[0]) & form.lead_mask) == form.lead) {
            const uint32_t number = sequence_number(text, length);
            return is_scalar(number) && number >= form.min_number ? length : 0;
        }
    }
    return 0;
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = utf8_sequence_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string_view truncate_utf8(std::string_view text, size_t max_size)
{
    if (text.size() <= max_size) {
        return text;
    }
    size_t end = max_size;
    for (int i = 0; i < 3 && end > 0 && continues_sequence(text[end]); ++i) {
        --end;
    }
    return text.substr(0, end);
}

bool is_control(std::string_view text)
{
    const uint32_t number = sequence_number(text, text.size());
    return number < 0x20 || (number >= 0x7F && number <= 0x9F) ||
           (number >= 0x2028 && number <= 0x202E) || (number >= 0x2066 && number <= 0x2069);
}

std::string to_utf8(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const size_t length = utf8_sequence_length(text);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            text.remove_prefix(1);
        } else {
            out += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return out;
}

std::string printable(std::string_view text)
{
    return escape(text, "\\\\");
}

std::string escape_controls(std::string_view text)
{
    return escape(text, "\\");
}

void append_hex_escapes(std::string* out, std::string_view bytes)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        *out += "\\x";
        *out += digits[byte >> 4U];
        *out += digits[byte & 0xFU];
    }
}

} // namespace wire
