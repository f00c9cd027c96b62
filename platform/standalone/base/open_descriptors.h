// The descriptors that this process has open.
#pragma once

#include <vector>

namespace platform {

// In ascending order, without the one that is used for listing them. Empty when the kernel does not
// list them.
std::vector<int> open_descriptors();

} // namespace platform
