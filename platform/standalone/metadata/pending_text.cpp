// A record is "CHECKSUM KIND REST"; the checksum is the CRC-32 of "KIND REST". Entries are written
// as in the metadata file, so no record contains a newline.

#include "platform/standalone/metadata/pending_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "platform/standalone/base/replace_file.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/metadata_text.h"

namespace platform {

namespace {

constexpr std::string_view set_kind = "set ";
constexpr std::string_view stored_kind = "stored ";
constexpr size_t checksum_digits = 8;

constexpr std::array<uint32_t, 256> make_crc_table()
{
    constexpr uint32_t polynomial = 0xEDB88320;
    std::array<uint32_t, 256> table = {};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1U) != 0 ? (value >> 1) ^ polynomial : value >> 1;
        }
        table[byte] = value;
    }
    return table;
}

constexpr std::array<uint32_t, 256> crc_table = make_crc_table();

uint32_t crc32_of(std::string_view text)
{
    uint32_t value = 0xFFFFFFFF;
    for (const char c : text) {
        value = (value >> 8) ^ crc_table[(value ^ static_cast<unsigned char>(c)) & 0xFFU];
    }
    return ~value;
}

void append_record(std::string* out, std::string_view body)
{
    char checksum[checksum_digits + 2];
    snprintf(checksum, sizeof checksum, "%08x ", crc32_of(body));
    *out += checksum;
    *out += body;
    *out += '\n';
}

// The record without its checksum; empty when the checksum is wrong.
std::string_view checked_body(std::string_view line)
{
    if (line.size() <= checksum_digits || line[checksum_digits] != ' ') {
        return {};
    }
    const char* end = line.data() + checksum_digits;
    uint32_t checksum = 0;
    const auto result = std::from_chars(line.data(), end, checksum, 16);
    const std::string_view body = line.substr(checksum_digits + 1);
    const bool right = result.ec == std::errc() && result.ptr == end && checksum == crc32_of(body);
    return right ? body : std::string_view();
}

bool is_temporary_name(std::string_view name)
{
    const std::string begin = std::string(metadata_file_name) + std::string(temporary_mark);
    constexpr size_t max_name = 255;
    return name.starts_with(begin) && name.size() <= max_name &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool take_setting(std::string_view line, item_settings* settings)
{
    text_document document;
    text_fault fault;
    if (!parse_metadata(line, &document, &fault) || document.entries.size() != 1 ||
        document.entries[0].tag != item_tag) {
        return false;
    }
    settings->insert_or_assign(std::move(document.entries[0].name),
                               std::move(document.entries[0].value));
    return true;
}

} // namespace

void append_set_record(std::string* out, std::string_view name, std::string_view value)
{
    std::string body(set_kind);
    append_entry_line(&body, name, value, item_tag);
    body.pop_back(); // the newline
    append_record(out, body);
}

void append_stored_record(std::string* out, std::string_view temporary)
{
    append_record(out, std::string(stored_kind) + std::string(temporary));
}

pending_text parse_pending(std::string_view text,
                           const std::function<bool(const std::string& temporary)>& is_there)
{
    pending_text pending;
    for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        const std::string_view body = checked_body(text.substr(0, end));
        text.remove_prefix(end + 1);
        if (body.starts_with(set_kind) &&
            take_setting(body.substr(set_kind.size()), &pending.settings)) {
            continue;
        }
        const std::string_view temporary =
            body.starts_with(stored_kind) ? body.substr(stored_kind.size()) : std::string_view();
        if (!is_temporary_name(temporary)) {
            ++pending.damaged;
        } else if (is_there(std::string(temporary))) {
            pending.temporaries.emplace_back(temporary);
        } else {
            pending.settings.clear();
        }
    }
    return pending;
}

} // namespace platform
