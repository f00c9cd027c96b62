// Random bytes from the kernel.
#pragma once

#include <cstddef>
#include <string>

namespace platform {

// 0, or -1 when the kernel provides none.
int random_bytes(void* data, size_t size);

// `bytes` random bytes as lower-case hexadecimal digits, for names that cannot be guessed. Empty
// when the kernel provides none.
std::string random_hex(size_t bytes);

} // namespace platform
