// Bytes from outside as text: what is valid UTF-8, and safe stand-ins for what is not.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace platform {

// Bytes of the UTF-8 sequence that `text` begins with, 1 to 4; 0 when it begins with none. Overlong
// forms, surrogates and numbers past U+10FFFF are none.
size_t utf8_sequence(std::string_view text);

bool is_utf8(std::string_view text);

// True when `text`, a whole sequence, is a control character: below U+0020, U+007F to U+009F, or
// one of the marks that begin a new line or turn the direction of writing (U+2028 to U+202E, U+2066
// to U+2069).
bool is_control(std::string_view text);

// Valid UTF-8 for a JSON string: each byte that belongs to no sequence becomes U+FFFD.
std::string to_utf8(std::string_view text);

// For a message of one line: controls and bytes outside UTF-8 as \xHH, a backslash as two.
std::string printable(std::string_view text);

// Appends each byte of `bytes` as \xHH.
void append_hex_escapes(std::string* out, std::string_view bytes);

} // namespace platform
