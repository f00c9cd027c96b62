// The command line: the standard switches, one row of a table each. The calls are those of
// platform/media_item.h: vexa_init_argv, vexa_next_arg, vexa_argv_is_switch,
// vexa_argv_std_handle_switch, vexa_std_help.
#pragma once

#include <cstddef>
#include <string>

namespace platform {

struct standard_switch {
    const char* name;
    const char* value;              // what the help calls the value; null: a switch without one
    bool (*take)(const char* text); // false when the text (null without a value) is no such value
    const char* wanted;             // what a right value is, for the message
    const char* help;
    std::string (*standard_value)(); // what holds without the switch, for the help
};

extern const standard_switch standard_switches[];
extern const size_t standard_switch_count;

// Forgets the arguments; vexa_next_arg then answers null.
void reset_switches();

} // namespace platform
