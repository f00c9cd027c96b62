#include "bin/examine/examine_file.h"

#include <cstdio>
#include <string_view>

#include "bin/examine/formats.h"
#include "bin/examine/identify.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/settings.h"

namespace {

constexpr std::string_view size_entry = "image size";
constexpr int item_tag = -1;

// A signal may have cut the examination short wherever it polls DIE4, so its result does not count.
int examine_format()
{
    const picture_format* format = find_format(image_file_type);
    if (format->examine() != 0 || DIE4 != 0) {
        fputs(format->examination_failed, stderr);
        return 1;
    }
    return 0;
}

bool is_size_entry(const metadata_v4_entry* entry)
{
    return entry != nullptr && entry->tag == item_tag &&
           std::string_view(entry->name, entry->name_length) == size_entry;
}

void remove_size_entries()
{
    // A freed entry leaves a hole, so the indices of the others do not change.
    for (size_t i = 0; i < metadata_v4_metadata_context_entry_count(vexa_metadata); ++i) {
        metadata_v4_entry* entry = metadata_v4_metadata_context_read_entry(vexa_metadata, i);
        if (is_size_entry(entry)) {
            metadata_v4_metadata_context_free_metadata_entry(vexa_metadata, entry);
        }
    }
}

void add_size_entry()
{
    if (image_width <= 0 || image_height <= 0) {
        return;
    }
    char value[32];
    snprintf(value, sizeof value, "%d x %d", image_width, image_height);
    metadata_v4_metadata_context_add_name_value_pair(vexa_metadata, size_entry.data(), 0, value, 0,
                                                     item_tag);
}

} // namespace

int examine_file()
{
    image_decoded_frames = 1;
    if (vexa_force_update_metadata) {
        vexa_do_write_metadata = true;
    }
    bool sniffed = false;
    const int result = identify_file(&sniffed);
    if (result != 0) {
        return result;
    }
    jpeg_should_abort = 0;
    if (examine_format() != 0) {
        return 1;
    }
    if (auto_generate_metadata_guid(vexa_metadata) != 0) {
        vexa_do_write_metadata = true;
    }
    if (sniffed) {
        remove_size_entries();
        add_size_entry();
    }
    return 0;
}
