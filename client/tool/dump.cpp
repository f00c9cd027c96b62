#include <unistd.h>

#include "client/tool/calls.h"
#include "client/tool/frame_json.h"
#include "client/tool/output.h"
#include "client/tool/session.h"

namespace {

std::string_view bytes_of(const uint8_t* first, uint64_t size)
{
    return {reinterpret_cast<const char*>(first), size};
}

// Writes whole rows, with their padding, of each plane that the picture has.
bool write_planes(const std::string& folder, const stillimage_picture& picture)
{
    const char* const names[STILLIMAGE_PLANES] = {"Y.raw", "U.raw", "V.raw", "A.raw"};
    for (int p = 0; p < STILLIMAGE_PLANES; ++p) {
        const uint64_t size = uint64_t{picture.stride[p]} * picture.plane_height[p];
        const std::string path = folder + "/" + names[p];
        if (picture.plane[p] == nullptr) {
            // The file of an earlier dump would seem to belong to this picture.
            unlink(path.c_str());
        } else if (!write_result(path, bytes_of(picture.plane[p], size))) {
            return false;
        }
    }
    return true;
}

bool write_dump(const std::string& folder, const stillimage_frame* frame)
{
    const stillimage_descriptor_info& info = *stillimage_frame_descriptor(frame);
    return make_folder(folder) && write_planes(folder, *stillimage_frame_picture(frame)) &&
           write_result(folder + "/scanline.bin", bytes_of(info.scanline, info.scanline_size)) &&
           write_result(folder + "/frame.json", frame_json(info));
}

} // namespace

exit_status call_dump(const call_options& options)
{
    session worker;
    held_frame frame;
    const exit_status status = worker.open_with_frame(options, &frame);
    if (status != STATUS_DONE) {
        return status;
    }
    return write_dump(options.output, frame.get()) ? STATUS_DONE : STATUS_FAILED;
}
