// Random bytes from the kernel.
#pragma once

#include <cstddef>
#include <string>

namespace platform {

// 0, or -1 when the kernel gives none.
int random_bytes(void* data, size_t size);

// `bytes` random bytes as lower-case hexadecimal digits, for names that nobody can guess. Empty
// when the kernel gives none.
std::string random_hex(size_t bytes);

} // namespace platform
