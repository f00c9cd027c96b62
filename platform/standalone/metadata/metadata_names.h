// Names of the standard entries of an item. Their contents: docs/metadata.md.
#pragma once

#include <string_view>

namespace platform::metadata_name {

inline constexpr std::string_view aspect_ratio = "aspect ratio";
inline constexpr std::string_view background_music = "background music";
inline constexpr std::string_view file_type = "file type";
inline constexpr std::string_view guid = "GUID";
inline constexpr std::string_view image_size = "image size";
inline constexpr std::string_view picture_size = "picture size";
inline constexpr std::string_view picture_time = "picture time";
inline constexpr std::string_view time_duration = "time duration";
inline constexpr std::string_view time_scale = "time scale";
inline constexpr std::string_view video_streams = "video streams";

} // namespace platform::metadata_name
