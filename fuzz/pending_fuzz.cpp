// A pending file, as a killed writer, a damaged disk or another program may leave it. Mutation does
// not find valid checksums, so the input is read twice: unchanged, and with the checksum of each
// line corrected.

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/pending_text.h"

namespace {

// Bit by bit, as docs/metadata.md defines it.
uint32_t crc32_of(std::string_view text)
{
    uint32_t value = 0xFFFFFFFF;
    for (const char c : text) {
        value ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1U) != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~value;
}

std::string with_checksums(std::string_view text)
{
    std::string out;
    for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        const std::string_view line = text.substr(0, end);
        const size_t blank = line.find(' ');
        const std::string_view body =
            blank == std::string_view::npos ? line : line.substr(blank + 1);
        char checksum[10];
        snprintf(checksum, sizeof checksum, "%08x ", crc32_of(body));
        out += checksum;
        out += body;
        out += '\n';
        text.remove_prefix(end + 1);
    }
    return out += text;
}

// A temporary file exists when the last byte of its name is even.
bool is_there(const std::string& temporary)
{
    require(temporary.starts_with("metadata.tmp-"));
    require(temporary.find('/') == std::string::npos);
    return static_cast<unsigned char>(temporary.back()) % 2 == 0;
}

// Writes what was read, reads it again, and sets it in a list without loss.
void check(std::string_view text)
{
    const platform::pending_text pending = platform::parse_pending(text, is_there);
    std::string again;
    for (const auto& [name, value] : pending.settings) {
        platform::append_set_record(&again, name, value);
    }
    const platform::pending_text read = platform::parse_pending(again, is_there);
    require(read.settings == pending.settings && read.damaged == 0);
    const platform::list_owner list(platform::new_metadata_list());
    const platform::settings_result result =
        platform::set_item_entries(list.get(), pending.settings);
    require(list->entries + result.refused == pending.settings.size());
    require(list->text_size == platform::metadata_list_text(*list).size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    check(input);
    check(with_checksums(input));
    return 0;
}
