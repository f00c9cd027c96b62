#include "wire/item_paths.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <pwd.h>
#include <unistd.h>
#include <vector>

#include "wire/sha256.h"
#include "wire/socket_address.h"
#include "wire/utf8.h"

namespace item_paths {

namespace {

constexpr size_t max_stem = 24;

// --- names --------------------------------------------------------------------------------------

bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Bytes of the character beyond ASCII that `text` begins with; 0 when it begins with another one,
// or with a control character (U+0080 to U+009F).
size_t wide_character(std::string_view text)
{
    constexpr std::string_view first_after_controls = "\xC2\xA0"; // U+00A0
    const std::string_view character = text.substr(0, wire::utf8_sequence_length(text));
    return character.size() > 1 && character >= first_after_controls ? character.size() : 0;
}

// The file's name without its folder and its last extension.
std::string_view stem_of(std::string_view path)
{
    const std::string_view file = path.substr(path.find_last_of('/') + 1);
    const size_t dot = file.find_last_of('.');
    return dot == std::string_view::npos || dot == 0 ? file : file.substr(0, dot);
}

// A variable's value when it is an absolute path, else null.
const char* absolute_path_in(const char* variable)
{
    const char* value = getenv(variable);
    return value != nullptr && value[0] == '/' ? value : nullptr;
}

bool home_folder(std::string* folder)
{
    if (const char* home = absolute_path_in("HOME"); home != nullptr) {
        *folder = home;
        return true;
    }
    std::vector<char> texts(16384);
    passwd entry = {};
    passwd* found = nullptr;
    const int failure = getpwuid_r(geteuid(), &entry, texts.data(), texts.size(), &found);
    if (found == nullptr || found->pw_dir == nullptr || found->pw_dir[0] != '/') {
        errno = failure != 0 ? failure : ENOENT;
        return false;
    }
    *folder = found->pw_dir;
    return true;
}

struct free_memory {
    void operator()(char* text) const { free(text); }
};

} // namespace

std::string name_of_real_path(std::string_view real_path)
{
    std::string name;
    std::string_view rest = stem_of(real_path);
    while (!rest.empty()) {
        const char c = rest[0];
        const size_t wide = wide_character(rest);
        const bool inner = !name.empty() && (c == '.' || c == '-');
        const std::string_view kept =
            wide > 0 || inner || is_letter_or_digit(c) ? rest.substr(0, wide > 0 ? wide : 1) : "_";
        if (name.size() + kept.size() > max_stem) {
            break;
        }
        name += kept;
        rest.remove_prefix(wide > 0 ? wide : 1);
    }
    return (name.empty() ? "_" : name) + '-' + wire::short_hash(real_path);
}

bool name_of_picture(const char* picture, std::string* name)
{
    const std::unique_ptr<char, free_memory> real_path(realpath(picture, nullptr));
    if (real_path == nullptr) {
        return false;
    }
    *name = name_of_real_path(real_path.get());
    return true;
}

bool state_folder(std::string* folder)
{
    if (const char* state = absolute_path_in("XDG_STATE_HOME"); state != nullptr) {
        *folder = std::string(state) + "/stillimage";
        return true;
    }
    if (!home_folder(folder)) {
        return false;
    }
    *folder += "/.local/state/stillimage";
    return true;
}

std::string runtime_folder()
{
    if (const char* runtime = absolute_path_in("XDG_RUNTIME_DIR"); runtime != nullptr) {
        return std::string(runtime) + "/stillimage";
    }
    const char* temporary = absolute_path_in("TMPDIR");
    return std::string(temporary != nullptr ? temporary : "/tmp") + "/stillimage-" +
           std::to_string(geteuid());
}

bool default_socket(const char* picture, std::string* path)
{
    std::string name;
    if (!name_of_picture(picture, &name)) {
        return false;
    }
    *path = runtime_folder() + '/' + name + ".sock";
    if (path->size() > wire::max_socket_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

} // namespace item_paths
