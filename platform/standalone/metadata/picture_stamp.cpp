#include "platform/standalone/metadata/picture_stamp.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_names.h"

namespace platform {

namespace {

// A year that a calendar date cannot represent is written in seconds.
std::string time_text(const timespec& time)
{
    std::array<char, 64> text = {};
    tm date = {};
    if (gmtime_r(&time.tv_sec, &date) == nullptr) {
        snprintf(text.data(), text.size(), "%" PRId64 ".%09ld s", static_cast<int64_t>(time.tv_sec),
                 time.tv_nsec);
        return text.data();
    }
    const size_t length = strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &date);
    snprintf(text.data() + length, text.size() - length, ".%09ldZ", time.tv_nsec);
    return text.data();
}

bool contradicts(const metadata_v4_metadata_context* list, std::string_view name,
                 const std::string& present)
{
    const metadata_v4_entry* entry = find_item_entry(list, name);
    return entry != nullptr && std::string_view(entry->value, entry->value_length) != present;
}

} // namespace

picture_stamp stamp_of(const struct stat& status)
{
    return {.size = std::to_string(status.st_size), .time = time_text(status.st_mtim)};
}

bool read_picture_stamp(int fd, picture_stamp* stamp)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return false;
    }
    *stamp = stamp_of(status);
    return true;
}

bool metadata_is_stale(const metadata_v4_metadata_context* list, const picture_stamp& present)
{
    return contradicts(list, metadata_name::picture_size, present.size) ||
           contradicts(list, metadata_name::picture_time, present.time);
}

void drop_stale_facts(metadata_v4_metadata_context* list)
{
    for (const std::string_view name :
         {metadata_name::file_type, metadata_name::image_size, metadata_name::picture_size,
          metadata_name::picture_time, metadata_name::time_duration, metadata_name::time_scale,
          metadata_name::video_streams}) {
        free_item_entries(list, name);
    }
}

int set_picture_stamp(metadata_v4_metadata_context* list, const picture_stamp& stamp)
{
    const int size = set_item_entry(list, metadata_name::picture_size, stamp.size);
    const int time = set_item_entry(list, metadata_name::picture_time, stamp.time);
    if (size < 0 || time < 0) {
        return -1;
    }
    return size > 0 || time > 0 ? 1 : 0;
}

} // namespace platform
