// SHA-256 (FIPS 180-4).
#pragma once

#include <array>
#include <string_view>

namespace wire {

// The digest of the bytes of `text`, in the order of its usual notation.
std::array<unsigned char, 32> sha256(std::string_view text);

} // namespace wire
