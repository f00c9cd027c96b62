// Bytes from outside as text: what is valid UTF-8, and safe replacements for what is not.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace wire {

// Bytes of the UTF-8 sequence that `text` begins with, 1 to 4; 0 when the text is empty or begins
// with an invalid one. Overlong forms, surrogates and numbers beyond U+10FFFF are invalid.
size_t utf8_sequence_length(std::string_view text);

bool is_utf8(std::string_view text);

// The first `max_size` bytes of `text`, less a character that is cut at the end.
std::string_view truncate_utf8(std::string_view text, size_t max_size);

// Whether `text`, one whole sequence, is a control character: below U+0020, U+007F to U+009F, a
// line or paragraph separator or a mark that changes the direction of writing (U+2028 to U+202E,
// U+2066 to U+2069).
bool is_control(std::string_view text);

// Valid UTF-8 for a JSON string: each byte outside a valid sequence becomes U+FFFD.
std::string to_utf8(std::string_view text);

// For a message of one line: control characters and invalid bytes as \xHH, a backslash as two.
std::string printable(std::string_view text);

// The same, but a backslash stays as it is: printable text is not changed at all.
std::string escape_controls(std::string_view text);

// Appends each byte of `bytes` as \xHH.
void append_hex_escapes(std::string* out, std::string_view bytes);

} // namespace wire
