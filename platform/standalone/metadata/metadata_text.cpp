// The text is parsed line by line. The ends of lines and of texts are trimmed before escapes are
// decoded, so a blank that belongs to a text is always written as an escape.

#include "platform/standalone/metadata/metadata_text.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "wire/utf8.h"

namespace platform {

namespace {

constexpr std::string_view blanks = " \t\r";
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

struct letter_escape {
    char letter; // after the backslash
    char byte;
};

constexpr letter_escape letter_escapes[] = {
    {'\\', '\\'}, {'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'=', '='},
};

std::string_view trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The byte of an "\xHH" at the start of `text`; -1 when there is none. The texts contain no NUL.
int hex_escape(std::string_view text)
{
    unsigned byte = 0;
    if (text.size() < 4 || !text.starts_with("\\x")) {
        return -1;
    }
    const char* end = text.data() + 4;
    const auto result = std::from_chars(text.data() + 2, end, byte, 16);
    return result.ec == std::errc() && result.ptr == end && byte != 0 ? static_cast<int>(byte) : -1;
}

// The byte of a "\n" or a similar escape at the start of `text`; -1 when there is none.
int short_escape(std::string_view text)
{
    for (const letter_escape& escape : letter_escapes) {
        if (text.size() >= 2 && text[1] == escape.letter) {
            return static_cast<unsigned char>(escape.byte);
        }
    }
    return -1;
}

// False when an escape is unknown.
bool unescape(std::string_view text, std::string* out)
{
    out->clear();
    while (!text.empty()) {
        const size_t plain = std::min(text.find('\\'), text.size());
        *out += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        int byte = short_escape(text);
        const size_t length = byte >= 0 ? 2 : 4;
        if (byte < 0) {
            byte = hex_escape(text);
        }
        if (byte < 0) {
            return false;
        }
        *out += static_cast<char>(byte);
        text.remove_prefix(length);
    }
    return true;
}

// The position of the '=' between name and value; npos when there is none.
size_t find_separator(std::string_view line)
{
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\') {
            ++i;
        } else if (line[i] == '=') {
            return i;
        }
    }
    return std::string_view::npos;
}

// Removes "[tag]" from the start of the line. False when there is a bracket without a number.
bool take_tag(std::string_view* line, int* tag)
{
    *tag = item_tag;
    if (!line->starts_with('[')) {
        return true;
    }
    const size_t close = line->find(']');
    if (close == std::string_view::npos) {
        return false;
    }
    const char* end = line->data() + close;
    const auto result = std::from_chars(line->data() + 1, end, *tag);
    line->remove_prefix(close + 1);
    return result.ec == std::errc() && result.ptr == end;
}

// Parses an entry. Null on success, otherwise what is wrong with the line.
const char* parse_entry(std::string_view line, text_entry* entry)
{
    if (!take_tag(&line, &entry->tag)) {
        return "a tag is one whole number in brackets";
    }
    const size_t separator = find_separator(line);
    if (separator == std::string_view::npos) {
        return "neither an entry (name = value) nor a comment";
    }
    if (!unescape(trimmed(line.substr(0, separator)), &entry->name) ||
        !unescape(trimmed(line.substr(separator + 1)), &entry->value)) {
        return "unknown escape after a backslash";
    }
    if (entry->name.size() > max_entry_name) {
        return "the name is too long";
    }
    if (entry->value.size() > max_entry_value) {
        return "the value is too long";
    }
    return nullptr;
}

// Adds one line to the document. Null, or what is wrong with it. The comments before the next entry
// are collected in document->trailing.
const char* add_line(std::string_view line, text_document* document)
{
    text_entry entry;
    bool is_entry = false;
    const char* reason = parse_metadata_line(line, false, &entry, &document->trailing, &is_entry);
    if (reason != nullptr || !is_entry) {
        return reason;
    }
    if (document->entries.size() == max_metadata_entries) {
        return too_many_entries;
    }
    entry.leading.swap(document->trailing);
    document->entries.push_back(std::move(entry));
    return nullptr;
}

// True when a sequence must be escaped wherever it occurs.
bool needs_escape(std::string_view sequence, size_t length)
{
    return length == 0 || wire::is_control(sequence);
}

// Appends `sequence`, whose UTF-8 length is `length` (0: an invalid byte), in the form used in the
// file.
void append_sequence(std::string* out, std::string_view sequence, size_t length)
{
    for (const letter_escape& escape : letter_escapes) {
        if (sequence[0] == escape.byte && escape.byte != '=') {
            *out += '\\';
            *out += escape.letter;
            return;
        }
    }
    if (needs_escape(sequence, length)) {
        wire::append_hex_escapes(out, sequence);
    } else {
        *out += sequence;
    }
}

void append_escaped(std::string* out, std::string_view text)
{
    while (!text.empty()) {
        const size_t length = wire::utf8_sequence_length(text);
        const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
        append_sequence(out, sequence, length);
        text.remove_prefix(sequence.size());
    }
}

// Appends a text such that blanks at its ends survive trimming.
void append_text(std::string* out, std::string_view text)
{
    constexpr std::string_view blank_escape = "\\x20";
    const size_t first = std::min(text.find_first_not_of(' '), text.size());
    const size_t last = first == text.size() ? first : text.find_last_not_of(' ') + 1;
    for (size_t i = 0; i < first; ++i) {
        *out += blank_escape;
    }
    append_escaped(out, text.substr(first, last - first));
    for (size_t i = last; i < text.size(); ++i) {
        *out += blank_escape;
    }
}

// The length of a prefix of a name that would change the meaning of its line: a comment, a tag, or
// a byte order mark.
size_t special_start(std::string_view name)
{
    if (name.starts_with('#') || name.starts_with('[')) {
        return 1;
    }
    return name.starts_with(byte_order_mark) ? byte_order_mark.size() : 0;
}

// Appends a name: a separator inside it and a special start are escaped as well.
void append_name(std::string* out, std::string_view name)
{
    const size_t special = special_start(name);
    wire::append_hex_escapes(out, name.substr(0, special));
    name.remove_prefix(special);
    std::string text;
    append_text(&text, name);
    for (const char c : text) {
        if (c == '=') {
            *out += '\\';
        }
        *out += c;
    }
}

} // namespace

bool parse_metadata(std::string_view text, text_document* document, text_fault* fault)
{
    *document = {};
    *fault = {};
    if (text.size() > max_metadata_file) {
        fault->reason = "the file is too large";
        return false;
    }
    if (text.starts_with(byte_order_mark)) {
        text.remove_prefix(byte_order_mark.size());
    }
    while (!text.empty()) {
        ++fault->line;
        const size_t end = std::min(text.find('\n'), text.size());
        const char* reason = add_line(text.substr(0, end), document);
        if (reason != nullptr) {
            fault->reason = reason;
            return false;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return true;
}

bool may_be_entry(std::string_view name, std::string_view value)
{
    return name.size() <= max_entry_name && value.size() <= max_entry_value &&
           name.find('\0') == std::string_view::npos && value.find('\0') == std::string_view::npos;
}

const char* parse_metadata_line(std::string_view line, bool first, text_entry* entry,
                                std::string* comments, bool* is_entry)
{
    if (first && line.starts_with(byte_order_mark)) {
        line.remove_prefix(byte_order_mark.size());
    }
    line = trimmed(line);
    *is_entry = false;
    if (line.find('\0') != std::string_view::npos) {
        return "a NUL byte";
    }
    if (!wire::is_utf8(line)) {
        return "not UTF-8";
    }
    if (line.empty() || line.starts_with('#')) {
        *comments += line;
        *comments += '\n';
        return nullptr;
    }
    *is_entry = true;
    return parse_entry(line, entry);
}

void append_entry_line(std::string* out, std::string_view name, std::string_view value, int tag)
{
    if (tag != item_tag) {
        *out += '[';
        *out += std::to_string(tag);
        *out += "] ";
    }
    append_name(out, name);
    *out += " = ";
    append_text(out, value);
    *out += '\n';
}

} // namespace platform
