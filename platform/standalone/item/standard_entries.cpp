#include "platform/standalone/item/standard_entries.h"

#include <climits>
#include <cstdio>
#include <string>

#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/item/values.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_names.h"
#include "platform/standalone/metadata/picture_stamp.h"
#include "wire/utf8.h"

namespace platform {

namespace {

namespace names = metadata_name;

// The entry's text, null when there is no such entry or it is empty.
const char* stored_text(const metadata_v4_metadata_context* list, std::string_view name)
{
    const metadata_v4_entry* entry = find_item_entry(list, name);
    return entry != nullptr && entry->value_length > 0 ? entry->value : nullptr;
}

void take_choices(const metadata_v4_metadata_context* list)
{
    const char* ratio = stored_text(list, names::aspect_ratio);
    if (ratio != nullptr && !from_switches.aspect_ratio_given) {
        parse_aspect_ratio(ratio, &vexa_aspect_ratio);
    }
    const char* music = stored_text(list, names::background_music);
    if (music != nullptr && !from_switches.background_music_given) {
        vexa_background_music = vexa_parse_background_music(music);
    }
}

void take_timeline(const metadata_v4_metadata_context* list)
{
    if (const char* scale = stored_text(list, names::time_scale); scale != nullptr) {
        parse_positive_ratio(scale, &vexa_time_scale);
    }
    int64_t number = 0;
    const char* duration = stored_text(list, names::time_duration);
    if (duration != nullptr && parse_integer(duration, &number) && number >= 0) {
        vexa_time_duration = number;
    }
    const char* streams = stored_text(list, names::video_streams);
    if (streams != nullptr && parse_integer(streams, &number) && number >= 0 && number <= INT_MAX) {
        vexa_video_streams = static_cast<int>(number);
    }
}

std::string ratio_text(const int_rational& ratio, char separator)
{
    return std::to_string(ratio.numerator) + separator + std::to_string(ratio.denominator);
}

bool aspect_ratio_known()
{
    return vexa_aspect_ratio.numerator != 0 || vexa_aspect_ratio.denominator != 0;
}

void store(metadata_v4_metadata_context* list, std::string_view name, const std::string& value)
{
    if (set_item_entry(list, name, value) < 0) {
        error_line("Metadata entry", name, "cannot be stored");
    }
}

void store_stamp(metadata_v4_metadata_context* list)
{
    const open_item* opened = opened_item();
    if (opened != nullptr && opened->stamp) {
        set_picture_stamp(list, *opened->stamp);
    }
}

} // namespace

void take_stored_settings(const metadata_v4_metadata_context* list)
{
    take_choices(list);
    take_timeline(list);
    const char* type = stored_text(list, names::file_type);
    if (type != nullptr && !from_switches.file_type_given) {
        vexa_set_string(&vexa_file_type, type);
    }
}

} // namespace platform

using namespace platform;

void vexa_standard_vars_to_metadata(metadata_v4_metadata_context* list)
{
    if (list == nullptr) {
        return;
    }
    if (vexa_file_type != nullptr) {
        store(list, names::file_type, vexa_file_type);
    }
    if (aspect_ratio_known() || from_switches.aspect_ratio_given) {
        store(list, names::aspect_ratio, ratio_text(vexa_aspect_ratio, ':'));
    }
    store(list, names::background_music, vexa_background_music != 0 ? "on" : "off");
    store(list, names::time_scale, ratio_text(vexa_time_scale, '/'));
    store(list, names::time_duration, std::to_string(vexa_time_duration));
    store(list, names::video_streams, std::to_string(vexa_video_streams));
    store_stamp(list);
    meta_to_json(list);
}

void vexa_print_standard_metadata_state()
{
    const std::string type =
        vexa_file_type != nullptr ? wire::printable(vexa_file_type) : "unknown";
    const std::string ratio =
        aspect_ratio_known() ? ratio_text(vexa_aspect_ratio, ':') : "of the picture";
    fputs("Standard metadata:\n", stderr);
    fprintf(stderr, "   File type: %s\n", type.c_str());
    fprintf(stderr, "   Aspect ratio: %s\n", ratio.c_str());
    fprintf(stderr, "   Background music: %s\n", vexa_background_music != 0 ? "on" : "off");
    fprintf(stderr, "   Time scale: %s\n", ratio_text(vexa_time_scale, '/').c_str());
}
