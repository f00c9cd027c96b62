// An open item: its picture and its metadata folder. Implements the context calls of
// platform/metadata.h; created and owned by the media item.
#pragma once

#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "platform/metadata.h"
#include "platform/standalone/metadata/metadata_file.h"
#include "platform/standalone/metadata/picture_stamp.h"

namespace platform {

// Every metadata_v4_context is one of these.
struct open_item : metadata_v4_context {
    std::string picture_path;     // as given
    std::string picture_absolute; // from the root
    unique_fd picture;
    // The state of the picture when it was opened. What is learnt from the picture later may belong
    // to a newer state; the next start then examines it again. None when the picture could not be
    // inspected.
    std::optional<picture_stamp> stamp;
    unique_fd folder;
    metadata_store store; // callers may change its limits
};

// Opens the picture and the metadata folder, which is created with mode 0700 if it is missing. Null
// after one message with path and reason. Later changes of the working folder have no effect on
// either.
open_item* open_media_item(const char* picture, const char* metadata_folder);

// Closes both; null is fine. The entry list is freed separately.
void close_media_item(open_item* item);

// The item's stored entries, see load_metadata. The caller frees them with free_metadata_list
// (metadata_list.h).
metadata_v4_metadata_context* load_item_metadata(const open_item& item);

} // namespace platform
