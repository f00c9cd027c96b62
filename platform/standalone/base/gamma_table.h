// The platform's table for 8-bit samples with gamma 2.2.
#pragma once

#include <array>
#include <cstdint>

namespace platform {

// Linear light, 0 to 65535, for each sample. All zero until dac8_gamma22_init_do has run.
extern std::array<uint16_t, 256> dac8_gamma22;

} // namespace platform
