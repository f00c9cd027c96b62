// The first look at a file: whatever stands there is one of the five types or none, and only what
// starts like a JPEG is one.

#include <cstdint>
#include <vector>

#include "bin/examine/formats.h"
#include "bin/examine/identify.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_marker_walk.h"
#include "fuzz/require.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A block of its own, so that the sanitizer sees a read past the end.
    const std::vector<unsigned char> file(data, data + size);
    const unsigned char* end = file.data() + file.size();
    const bool chain_holds = jpeg_marker_chain_holds(file.data(), end);
    const int type = sniff_file_type(file.data(), end);
    const bool starts_like_jpeg = size >= 2 && data[0] == 0xFF && data[1] >= 0xD0;
    require(type == IMAGE_UNKNOWN || find_format(type) != nullptr);
    require((type == IMAGE_JPEG) == (starts_like_jpeg && chain_holds));
    return 0;
}
