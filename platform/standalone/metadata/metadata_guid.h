// The item's identity for other systems.
#pragma once

#include <string>

namespace platform {

// A random UUID (version 4) in its usual form of 36 characters. Empty when the kernel provides no
// random bytes.
std::string random_guid();

} // namespace platform
