// JBIG strips of a TIFF, looked at before libtiff decodes them.
#pragma once

#include <cstdint>

// False, with a message, for a strip of the open TIFF whose own header promises more than `bytes` of
// picture. The library would refuse it, too, but only after it has decoded all of it; and where the
// memory for that is missing, the JBIG library ends the process.
bool jbig_strip_fits(uint32_t strip, uint64_t bytes);
