// Whether text can be shown on a terminal without changing anything but what is read.
#pragma once

#include <string_view>

#include "wire/utf8.h"

// Lines of valid UTF-8 without control characters.
inline bool is_printable_text(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = wire::utf8_sequence_length(text);
        if (length == 0 || (text[0] != '\n' && wire::is_control(text.substr(0, length)))) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}
