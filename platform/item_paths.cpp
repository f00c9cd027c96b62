#include "platform/item_paths.h"

#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace item_paths {

namespace {

constexpr size_t longest_stem = 24;
constexpr size_t hash_bytes = 10;

// --- SHA-256 (FIPS 180-4): file names come from strangers, and two of them must not meet on
// purpose ---

using hash_state = std::array<uint32_t, 8>;

constexpr size_t block_size = 64;

// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::array<uint32_t, 64> round_constants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::array<uint32_t, 64> message_schedule(const unsigned char* block)
{
    std::array<uint32_t, 64> words = {};
    for (size_t i = 0; i < 16; ++i) {
        words[i] = static_cast<uint32_t>(block[4 * i]) << 24 |
                   static_cast<uint32_t>(block[4 * i + 1]) << 16 |
                   static_cast<uint32_t>(block[4 * i + 2]) << 8 | block[4 * i + 3];
    }
    for (size_t i = 16; i < words.size(); ++i) {
        const uint32_t early = words[i - 15];
        const uint32_t late = words[i - 2];
        words[i] = words[i - 16] + (std::rotr(early, 7) ^ std::rotr(early, 18) ^ (early >> 3)) +
                   words[i - 7] + (std::rotr(late, 17) ^ std::rotr(late, 19) ^ (late >> 10));
    }
    return words;
}

void hash_block(hash_state* state, const unsigned char* block)
{
    const std::array<uint32_t, 64> words = message_schedule(block);
    auto [a, b, c, d, e, f, g, h] = *state;
    for (size_t i = 0; i < words.size(); ++i) {
        const uint32_t chosen = (e & f) ^ (~e & g);
        const uint32_t mixed = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) +
                               chosen + round_constants[i] + words[i];
        const uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
        h = g;
        g = f;
        f = e;
        e = d + mixed;
        d = c;
        c = b;
        b = a;
        a = mixed + (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + majority;
    }
    const hash_state worked = {a, b, c, d, e, f, g, h};
    for (size_t i = 0; i < worked.size(); ++i) {
        (*state)[i] += worked[i];
    }
}

hash_state sha256(std::string_view text)
{
    std::vector<unsigned char> padded(text.begin(), text.end());
    const uint64_t bits = static_cast<uint64_t>(text.size()) * 8;
    padded.push_back(0x80);
    while (padded.size() % block_size != block_size - 8) {
        padded.push_back(0);
    }
    for (int shift = 56; shift >= 0; shift -= 8) {
        padded.push_back(static_cast<unsigned char>(bits >> shift));
    }
    hash_state state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    for (size_t at = 0; at < padded.size(); at += block_size) {
        hash_block(&state, padded.data() + at);
    }
    return state;
}

std::string short_hash(std::string_view text)
{
    const hash_state state = sha256(text);
    std::string digits;
    for (size_t i = 0; i < hash_bytes; ++i) {
        const uint32_t byte = state[i / 4] >> (24 - 8 * (i % 4)) & 0xFFU;
        digits += "0123456789abcdef"[byte >> 4];
        digits += "0123456789abcdef"[byte & 15U];
    }
    return digits;
}

// --- names --------------------------------------------------------------------------------------

bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Bytes of the printable UTF-8 character beyond ASCII that `text` begins with, 0 when it begins
// with none.
size_t wide_character(std::string_view text)
{
    const auto byte = [text](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned lead = byte(0);
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80U) {
            return 0;
        }
    }
    const bool overlong = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xF0 && byte(1) < 0x90);
    const bool surrogate = lead == 0xED && byte(1) > 0x9F;
    const bool too_large = lead == 0xF4 && byte(1) > 0x8F;
    const bool control = lead == 0xC2 && byte(1) < 0xA0;
    return overlong || surrogate || too_large || control ? 0 : length;
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
        if (name.size() + kept.size() > longest_stem) {
            break;
        }
        name += kept;
        rest.remove_prefix(wide > 0 ? wide : 1);
    }
    return (name.empty() ? "_" : name) + '-' + short_hash(real_path);
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
    if (path->size() > longest_socket_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

} // namespace item_paths
