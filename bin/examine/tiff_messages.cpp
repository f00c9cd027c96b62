#include "bin/examine/tiff_messages.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include <tiffio.h>

#include "wire/utf8.h"

namespace {

constexpr size_t text_size = 1024; // including the module's name; longer texts are truncated
constexpr size_t line_size = text_size + sizeof "TIFF WARNING: ";
constexpr size_t max_noted = 4; // opening a strip rarely gives more than one

// Plain arrays, since the library may jump over the functions that use them.
struct message_state {
    tiff_message_fate fate;
    unsigned counted;
    char noted[max_noted][line_size];
    size_t notes;
    size_t seen_again; // how many of the notes have come again
};

message_state state;

void note(const char* line)
{
    if (state.notes < max_noted) {
        strcpy(state.noted[state.notes], line); // lines are shorter than line_size
        ++state.notes;
    }
}

bool was_noted(const char* line)
{
    for (size_t i = state.seen_again; i < state.notes; ++i) {
        if (strcmp(state.noted[i], line) == 0) {
            state.seen_again = i + 1;
            return true;
        }
    }
    return false;
}

bool is_printed(const char* line)
{
    switch (state.fate) {
    case TIFF_MESSAGES_NOTED:
        note(line);
        return true;
    case TIFF_MESSAGES_COUNTED:
        ++state.counted;
        return false;
    case TIFF_MESSAGES_NOT_AGAIN:
        return !was_noted(line);
    case TIFF_MESSAGES_DROPPED:
        return false;
    case TIFF_MESSAGES_PRINTED:
        break;
    }
    return true;
}

// Messages contain the name of the file, which may hold any byte.
[[gnu::format(printf, 3, 0)]] void print_library_message(const char* kind, const char* module,
                                                         const char* format, va_list arguments)
{
    char text[text_size];
    const int start = snprintf(text, sizeof text, "%s: ", module != nullptr ? module : "libtiff");
    const size_t used = start > 0 && size_t(start) < sizeof text ? size_t(start) : 0;
    vsnprintf(text + used, sizeof text - used, format, arguments);
    char line[line_size];
    snprintf(line, sizeof line, "TIFF %s: %s", kind, text);
    if (is_printed(line)) {
        fprintf(stderr, "%s\n", wire::escape_controls(line).c_str());
    }
}

[[gnu::format(printf, 2, 0)]] void tiff_error(const char* module, const char* format,
                                              va_list arguments)
{
    print_library_message("ERROR", module, format, arguments);
}

[[gnu::format(printf, 2, 0)]] void tiff_warning(const char* module, const char* format,
                                                va_list arguments)
{
    print_library_message("WARNING", module, format, arguments);
}

} // namespace

void install_tiff_messages()
{
    TIFFSetErrorHandler(tiff_error);
    TIFFSetWarningHandler(tiff_warning);
    state.fate = TIFF_MESSAGES_PRINTED;
}

void set_tiff_message_fate(tiff_message_fate fate)
{
    if (state.fate == TIFF_MESSAGES_DROPPED) {
        return;
    }
    if (fate == TIFF_MESSAGES_NOTED) {
        state.notes = 0;
        state.seen_again = 0;
    }
    if (fate == TIFF_MESSAGES_COUNTED) {
        state.counted = 0;
    }
    state.fate = fate;
}

unsigned counted_tiff_messages()
{
    return state.counted;
}
