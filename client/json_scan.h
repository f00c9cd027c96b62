// Extracts single values from a JSON document without parsing it into a tree. Other values are
// skipped without validation. Malformed text is safe: no read goes past its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// The text of member `key` of the object, or of element `index` of the array, that `json` starts
// with. Empty if there is none.
std::string_view json_member(std::string_view json, std::string_view key);
std::string_view json_element(std::string_view json, size_t index);

// Parses a whole number from 1 to 1e15. Anything else is 0.
uint64_t json_count(std::string_view text);
