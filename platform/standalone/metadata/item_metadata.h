// An open item: its picture and its metadata folder. Stands behind the context calls of
// platform/metadata.h; made and kept by the media item.
#pragma once

#include <optional>
#include <string>

#include "platform/metadata.h"
#include "platform/standalone/base/unique_fd.h"
#include "platform/standalone/metadata/metadata_file.h"
#include "platform/standalone/metadata/picture_stamp.h"

namespace platform {

// Every metadata_v4_context is one of these.
struct open_item : metadata_v4_context {
    std::string picture_path;     // as given
    std::string picture_absolute; // from the root
    unique_fd picture;
    // Of the picture when it was opened: what is learnt from it later may be of a newer state, and
    // is then looked at again by the next start. None when the picture could not be looked at.
    std::optional<picture_stamp> stamp;
    unique_fd folder;
    metadata_store store; // its limits may be changed
};

// Opens the picture and the metadata folder; the folder is made, with mode 0700, when it is
// missing. Null after one message that names the path and the reason. Neither depends on the
// working folder afterwards.
open_item* open_media_item(const char* picture, const char* metadata_folder);

// Closes both; null is fine. The entry list is freed by its own call.
void close_media_item(open_item* item);

// The item's stored entries, see load_metadata. To be freed with free_metadata_list
// (metadata_list.h).
metadata_v4_metadata_context* load_item_metadata(const open_item& item);

} // namespace platform
