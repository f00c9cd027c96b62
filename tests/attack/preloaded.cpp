// Makes the attempts that the variable ATTACKS lists, one a line: a name, and after a space its
// argument. Each prints "NAME ARGUMENT: allowed" or "NAME ARGUMENT: refused" and the error on
// standard error. ATTACKS_AT says when: `examination` (the default) or `decoding`, which a daemon
// does in the background.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include <png.h>

#include "tests/attack/attack.h"

namespace attack {

int outcome(long result)
{
    return result < 0 ? errno : 0;
}

namespace {

const attempt* find_attempt(std::string_view name)
{
    for (const auto& group :
         {code_attempts(), file_attempts(), memory_attempts(), neighbour_attempts(),
          socket_attempts(), descriptor_attempts(), own_file_attempts(), registry_attempts()}) {
        for (const attempt& each : group) {
            if (name == each.name) {
                return &each;
            }
        }
    }
    return nullptr;
}

std::string result_of(const std::string& line)
{
    const size_t space = std::min(line.find(' '), line.size());
    const attempt* found = find_attempt(std::string_view(line).substr(0, space));
    if (found == nullptr) {
        return "unknown";
    }
    errno = 0;
    const int error = found->run(line.substr(std::min(space + 1, line.size())));
    const char* name = strerrorname_np(error);
    return error == 0 ? "allowed" : std::string("refused ") + (name != nullptr ? name : "?");
}

void print(const std::string& text)
{
    const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
    static_cast<void>(written);
}

void attack_at(std::string_view moment)
{
    const char* chosen = getenv("ATTACKS_AT");
    const char* list = getenv("ATTACKS");
    static bool done = false;
    if (done || list == nullptr || moment != (chosen != nullptr ? chosen : "examination")) {
        return;
    }
    done = true;
    std::string rest = list;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        const std::string line = rest.substr(0, end);
        rest.erase(0, end + 1);
        print(line + ": " + result_of(line) + '\n');
    }
    print("attacks are over\n");
}

template <typename Function>
Function next_definition(Function /*own*/, const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

} // namespace attack

// The functions of the library that the worker calls when it examines and when it decodes a PNG.

png_structp png_create_read_struct(png_const_charp version, png_voidp pointer, png_error_ptr error,
                                   png_error_ptr warning)
{
    attack::attack_at("examination");
    return attack::next_definition(png_create_read_struct,
                                   "png_create_read_struct")(version, pointer, error, warning);
}

void png_read_rows(png_structrp png, png_bytepp row, png_bytepp display_row, png_uint_32 rows)
{
    attack::attack_at("decoding");
    attack::next_definition(png_read_rows, "png_read_rows")(png, row, display_row, rows);
}
