#include "bin/examine/formats.h"

#include <algorithm>

#include "bin/examine/gif.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg.h"
#include "bin/examine/jpeg_marker_walk.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/png.h"
#include "bin/examine/tiff.h"
#include "bin/examine/webp.h"

using namespace std::string_view_literals;

namespace {

bool is_webp(std::string_view start)
{
    return start.starts_with("RIFF"sv) && start.size() >= 8 &&
           start.substr(8).starts_with("WEBP"sv);
}

bool is_tiff(std::string_view start)
{
    return start.starts_with("II*\0"sv) || start.starts_with("MM\0*"sv);
}

bool is_jpeg(std::string_view start)
{
    const auto* begin = reinterpret_cast<const unsigned char*>(start.data());
    return start.size() >= 2 && begin[0] == 0xFF && begin[1] >= 0xD0 &&
           jpeg_marker_chain_holds(begin, begin + start.size());
}

bool is_png(std::string_view start)
{
    return start.starts_with("\x89PNG"sv);
}

bool is_gif(std::string_view start)
{
    return start.starts_with("GIF87a"sv) || start.starts_with("GIF89a"sv);
}

// In the order in which the readers are closed.
constexpr picture_format table[] = {
    {.type = IMAGE_WEBP,
     .name = "WebP",
     .mime = "image/webp",
     .matches = is_webp,
     .examine = examine_webp_file,
     .examination_failed = "WebP examination failed\n",
     .free_all = free_all_webp},
    {.type = IMAGE_TIFF,
     .name = "TIFF",
     .mime = "image/tiff",
     .matches = is_tiff,
     .examine = examine_tiff_file,
     .examination_failed = "TIFF examination failed\n",
     .free_all = free_all_tiff},
    {.type = IMAGE_JPEG,
     .name = "JPEG",
     .mime = "image/jpeg",
     .matches = is_jpeg,
     .examine = examine_jpeg_file,
     .examination_failed = "JPEG examination failed\n",
     .free_all = free_all_jpeg_fileio},
    {.type = IMAGE_PNG,
     .name = "PNG",
     .mime = "image/png",
     .matches = is_png,
     .examine = examine_png_file,
     .examination_failed = "PNG examination failed\n",
     .free_all = free_all_png_fileio},
    {.type = IMAGE_GIF,
     .name = "GIF",
     .mime = "image/gif",
     .matches = is_gif,
     .examine = examine_gif_file,
     .examination_failed = "GIF examination failed\n",
     .free_all = free_all_gif},
};

} // namespace

const std::span<const picture_format> picture_formats = table;

const picture_format* find_format(int type)
{
    const auto* found =
        std::find_if(std::begin(table), std::end(table),
                     [type](const picture_format& row) { return row.type == type; });
    return found != std::end(table) ? found : nullptr;
}

void free_all_readers()
{
    for (const picture_format& format : table) {
        format.free_all();
    }
}
