// Command lines: arguments that each end with a NUL, handled as the program handles them. Whatever
// they contain, the resulting settings are valid for the rest of the program.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/require.h"
#include "platform/settings.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/life_cycle.h"
#include "platform/start_up.h"

namespace {

std::vector<std::string> arguments_in(const uint8_t* data, size_t size)
{
    std::vector<std::string> arguments;
    std::string argument;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            arguments.push_back(argument);
            argument.clear();
        } else {
            argument += static_cast<char>(data[i]);
        }
    }
    return arguments;
}

void take_argument(char* argument)
{
    const char* const before = argument;
    if (vexa_argv_is_switch(&argument) == 0) {
        require(argument == before);
        return;
    }
    require(argument == before + 1 || argument == before + 2);
    vexa_argv_std_handle_switch(argument);
}

void take_arguments()
{
    for (char* argument = vexa_next_arg(); argument != nullptr; argument = vexa_next_arg()) {
        take_argument(argument);
    }
    require(vexa_next_arg() == nullptr);
}

void check_settings()
{
    for (const char* text : {vexa_file, vexa_file_metadir, vexa_sock, vexa_file_type}) {
        require(text == nullptr || *text != '\0');
    }
    const bool unknown = vexa_aspect_ratio.numerator == 0 && vexa_aspect_ratio.denominator == 0;
    require(unknown || (vexa_aspect_ratio.numerator > 0 && vexa_aspect_ratio.denominator > 0));
    require(vexa_background_music == 0 || vexa_background_music == 1);
    require(platform::cnb_domain_name_valid(platform::from_switches.domain));
}

FILE* null_stream()
{
    static FILE* const stream = fopen("/dev/null", "w");
    return stream;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> arguments = arguments_in(data, size);
    std::vector<char*> vector;
    vector.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        vector.push_back(argument.data());
    }
    vector.push_back(nullptr);
    const bool accepted = vexa_init_argv(static_cast<int>(arguments.size()), vector.data()) == 0;
    require(accepted == !arguments.empty());
    stderr = null_stream(); // until reset_item restores the real one
    take_arguments();
    check_settings();
    platform::reset_item();
    return 0;
}
