#include "client/json_scan.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view spaces = " \t\r\n";

// Consumes a text from its front.
class json_reader {
public:
    explicit json_reader(std::string_view text) : rest_(text) {}

    bool take(char wanted)
    {
        skip_spaces();
        if (rest_.empty() || rest_.front() != wanted) {
            return false;
        }
        rest_.remove_prefix(1);
        return true;
    }

    // Includes the quotes. Empty if the text does not continue with a string.
    std::string_view take_string()
    {
        skip_spaces();
        return cut(rest_.empty() || rest_.front() != '"' ? 0 : string_length(0));
    }

    std::string_view take_value()
    {
        skip_spaces();
        if (rest_.empty()) {
            return {};
        }
        switch (rest_.front()) {
        case '"':
            return cut(string_length(0));
        case '{':
        case '[':
            return cut(nested_length());
        default:
            return cut(std::min(rest_.find_first_of(",]} \t\r\n"), rest_.size()));
        }
    }

private:
    void skip_spaces()
    {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(spaces), rest_.size()));
    }

    std::string_view cut(size_t length)
    {
        const std::string_view piece = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return piece;
    }

    // The length of the string that begins at `start`; an unterminated one extends to the text's
    // end.
    size_t string_length(size_t start) const
    {
        size_t at = start + 1;
        while (at < rest_.size() && rest_[at] != '"') {
            at += rest_[at] == '\\' ? 2 : 1;
        }
        return std::min(at + 1, rest_.size()) - start;
    }

    size_t nested_length() const
    {
        size_t depth = 0;
        size_t at = 0;
        while (at < rest_.size()) {
            const char c = rest_[at];
            at += c == '"' ? string_length(at) : 1;
            if (c == '{' || c == '[') {
                ++depth;
            } else if ((c == '}' || c == ']') && --depth == 0) {
                break;
            }
        }
        return at;
    }

    std::string_view rest_;
};

} // namespace

std::string_view json_member(std::string_view json, std::string_view key)
{
    json_reader reader(json);
    bool more = reader.take('{');
    while (more) {
        const std::string_view name = reader.take_string();
        if (name.size() < 2 || !reader.take(':')) {
            return {};
        }
        const std::string_view value = reader.take_value();
        if (name.substr(1, name.size() - 2) == key) {
            return value;
        }
        more = reader.take(',');
    }
    return {};
}

std::string_view json_element(std::string_view json, size_t index)
{
    json_reader reader(json);
    bool more = reader.take('[');
    for (size_t i = 0; more; ++i) {
        const std::string_view value = reader.take_value();
        if (i == index) {
            return value;
        }
        more = reader.take(',');
    }
    return {};
}

uint64_t json_count(std::string_view text)
{
    constexpr uint64_t max_count = 1'000'000'000'000'000;
    uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stopped == end && number <= max_count ? number : 0;
}
