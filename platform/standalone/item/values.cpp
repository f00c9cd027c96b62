#include "platform/standalone/item/values.h"

#include <climits>
#include <cstring>
#include <initializer_list>
#include <strings.h>

#include "platform/settings.h"
#include "platform/standalone/base/checked_math.h"

namespace platform {

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

void skip_blanks(const char** at)
{
    while (**at == ' ' || **at == '\t') {
        ++*at;
    }
}

uint64_t saturating_multiply(uint64_t a, uint64_t b)
{
    uint64_t product = 0;
    return checked_multiply(a, b, &product) ? product : UINT64_MAX;
}

// Reads one or more digits. False without moving *at when there is none.
bool take_digits(const char** at, uint64_t* number)
{
    if (!is_digit(**at)) {
        return false;
    }
    *number = 0;
    for (; is_digit(**at); ++*at) {
        *number =
            saturating_add(saturating_multiply(*number, 10), static_cast<uint64_t>(**at - '0'));
    }
    return true;
}

bool take_integer(const char** at, int64_t* number)
{
    const bool negative = **at == '-';
    if (negative || **at == '+') {
        ++*at;
    }
    uint64_t magnitude = 0;
    if (!take_digits(at, &magnitude)) {
        return false;
    }
    constexpr auto largest = static_cast<uint64_t>(INT64_MAX);
    if (magnitude > largest) {
        *number = negative ? INT64_MIN : INT64_MAX;
    } else {
        *number = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    }
    return true;
}

// The factor of a size's suffix, 0 when it is invalid.
uint64_t suffix_factor(const char* suffix)
{
    constexpr char suffixes[] = "KMGT";
    if (*suffix == '\0') {
        return 1;
    }
    const char* found = strchr(suffixes, *suffix & ~('a' ^ 'A'));
    if (suffix[1] != '\0' || found == nullptr || *found == '\0') {
        return 0;
    }
    return uint64_t{1} << (10 * (found - suffixes + 1));
}

// Up to six digits after the point as microseconds. False when something else follows.
bool take_fraction(const char** at, uint64_t* microseconds)
{
    if (!is_digit(**at)) {
        return false;
    }
    uint64_t unit = 100'000;
    *microseconds = 0;
    for (; is_digit(**at); ++*at, unit /= 10) {
        *microseconds += unit * static_cast<uint64_t>(**at - '0');
    }
    return true;
}

} // namespace

bool parse_size(const char* text, uint64_t* bytes)
{
    uint64_t number = 0;
    if (!take_digits(&text, &number)) {
        return false;
    }
    const uint64_t factor = suffix_factor(text);
    if (factor == 0 || number == 0) {
        return false;
    }
    *bytes = saturating_multiply(number, factor);
    return true;
}

bool parse_seconds(const char* text, uint64_t* microseconds)
{
    constexpr uint64_t per_second = 1'000'000;
    uint64_t whole = 0;
    uint64_t fraction = 0;
    if (!take_digits(&text, &whole)) {
        return false;
    }
    if (*text == '.' && !take_fraction(&++text, &fraction)) {
        return false;
    }
    if (*text != '\0') {
        return false;
    }
    *microseconds = saturating_add(saturating_multiply(whole, per_second), fraction);
    return true;
}

bool parse_descriptor(const char* text, int* number)
{
    uint64_t digits = 0;
    if (!take_digits(&text, &digits) || *text != '\0' || digits > INT_MAX) {
        return false;
    }
    *number = static_cast<int>(digits);
    return true;
}

bool parse_aspect_ratio(const char* text, int_rational* ratio)
{
    int_rational read = {};
    if (vexa_parse_int_rational(&read, text) != 0) {
        return false;
    }
    const bool unknown = read.numerator == 0 && read.denominator == 0;
    if (!unknown && (read.numerator <= 0 || read.denominator <= 0)) {
        return false;
    }
    *ratio = read;
    return true;
}

bool parse_positive_ratio(const char* text, int_rational* ratio)
{
    int_rational read = {};
    if (vexa_parse_int_rational(&read, text) != 0 || read.numerator <= 0 || read.denominator <= 0) {
        return false;
    }
    *ratio = read;
    return true;
}

bool parse_integer(const char* text, int64_t* number)
{
    int64_t read = 0;
    if (!take_integer(&text, &read) || *text != '\0') {
        return false;
    }
    *number = read;
    return true;
}

bool parse_on_off(const char* text, bool* on)
{
    constexpr const char* words[2][4] = {{"off", "no", "false", "0"}, {"on", "yes", "true", "1"}};
    for (const bool state : {false, true}) {
        for (const char* word : words[state ? 1 : 0]) {
            if (strcasecmp(text, word) == 0) {
                *on = state;
                return true;
            }
        }
    }
    return false;
}

} // namespace platform

using namespace platform;

int vexa_parse_int_rational(int_rational* ratio, const char* text)
{
    int_rational read = {0, 1};
    if (text == nullptr) {
        return -1;
    }
    skip_blanks(&text);
    if (!take_integer(&text, &read.numerator)) {
        return -1;
    }
    skip_blanks(&text);
    if (*text == ':' || *text == '/') {
        ++text;
        skip_blanks(&text);
        if (!take_integer(&text, &read.denominator)) {
            return -1;
        }
        skip_blanks(&text);
    }
    if (*text != '\0') {
        return -1;
    }
    *ratio = read;
    return 0;
}

int vexa_parse_background_music(const char* text)
{
    bool on = vexa_background_music != 0;
    if (text != nullptr) {
        parse_on_off(text, &on);
    }
    return on ? 1 : 0;
}
