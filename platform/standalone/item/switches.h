// The command line: the standard switches, one row of a table per switch. The contract's calls are
// vexa_init_argv, vexa_next_arg, vexa_argv_is_switch, vexa_argv_std_handle_switch and vexa_std_help
// of platform/start_up.h.
#pragma once

#include <cstddef>
#include <string>

namespace platform {

struct standard_switch {
    const char* name;
    const char* value;              // name of the value in the help; null: a switch without a value
    bool (*take)(const char* text); // false when the text (null without a value) is invalid
    const char* wanted;             // description of a valid value, for the message
    const char* help;
    std::string (*standard_value)(); // the default, for the help
};

extern const standard_switch standard_switches[];
extern const size_t standard_switch_count;

// Discards the arguments; vexa_next_arg then returns null.
void reset_switches();

} // namespace platform
