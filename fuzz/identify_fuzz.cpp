// Identification by content: every file has one of the five types or none, and only a file with the
// marker chain of a JPEG is a JPEG.

#include <cstdint>
#include <vector>

#include "bin/examine/formats.h"
#include "bin/examine/identify.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_marker_walk.h"
#include "fuzz/require.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A copy of exactly this size, so that the sanitizer detects reads past the end.
    const std::vector<unsigned char> file(data, data + size);
    const unsigned char* end = file.data() + file.size();
    const bool chain_holds = jpeg_marker_chain_holds(file.data(), end);
    const int type = sniff_file_type(file.data(), end);
    const bool starts_like_jpeg = size >= 2 && data[0] == 0xFF && data[1] >= 0xD0;
    require(type == IMAGE_UNKNOWN || find_format(type) != nullptr);
    require((type == IMAGE_JPEG) == (starts_like_jpeg && chain_holds));
    return 0;
}
