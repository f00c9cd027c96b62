// Picks single values out of a JSON document without building it up. What is not asked for is passed
// over, not judged; broken text is read to its end at most.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// The text of the member `key` of the object that `json` starts with; of the array's element `index`.
// Empty when there is none.
std::string_view json_member(std::string_view json, std::string_view key);
std::string_view json_element(std::string_view json, size_t index);

// A whole number from 1 to 1e15; 0: anything else.
uint64_t json_count(std::string_view text);
