// JBIG strips of a TIFF are checked before libtiff decodes them.
#pragma once

#include <cstdint>

// False, with a message, when the strip's own header announces more than `bytes` bytes of picture.
// libtiff would refuse the strip too, but only after decoding all of it, and when memory for that
// runs out, the JBIG library ends the process.
bool jbig_strip_fits(uint32_t strip, uint64_t bytes);
