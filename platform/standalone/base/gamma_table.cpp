#include "platform/standalone/base/gamma_table.h"

#include <cmath>
#include <cstddef>

#include "platform/misc.h"

namespace platform {

std::array<uint16_t, 256> dac8_gamma22 = {};

} // namespace platform

void dac8_gamma22_init_do()
{
    std::array<uint16_t, 256>& table = platform::dac8_gamma22;
    if (table.back() != 0) {
        return;
    }
    for (size_t sample = 0; sample < table.size(); ++sample) {
        const double light = std::pow(static_cast<double>(sample) / 255.0, 2.2);
        table[sample] = static_cast<uint16_t>(std::lround(light * 65535.0));
    }
}
