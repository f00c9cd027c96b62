// SHA-256 (FIPS 180-4).
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace wire {

// The digest of the bytes of `text`, in the order of its usual notation.
std::array<unsigned char, 32> sha256(std::string_view text);

// The first ten bytes of the digest as 20 hexadecimal digits. For names of files that come from
// strangers: two names must not collide on purpose.
std::string short_hash(std::string_view text);

} // namespace wire
