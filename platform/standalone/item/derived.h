// From the switches to an open item: the paths that no switch gave, the lock, the metadata and the
// settings in it. The contract's call is item_to_json_common of platform/media_item.h.
#pragma once

#include <string>

#include "platform/standalone/metadata/item_metadata.h"

namespace platform {

// Derives the paths, takes the serve lock in the modes that serve, opens the item and its metadata
// and takes the settings from it. 0, or -1 after a message; what was opened and taken until then is
// the caller's to give back: close_item, then release_serve_lock.
int derive_item();

// The open item behind vexa_meta; null while there is none. What of the metadata may be written,
// and how, goes through it.
const open_item* opened_item();

// Closes the item and frees its entry list; vexa_meta and vexa_metadata are null afterwards. May
// run twice.
void close_item();

// Absolute path of the comm socket, whatever vexa_sock was given as and wherever the process's
// working folder is now; at most 107 bytes. Empty before vexa_standard_to_derived_params.
const std::string& socket_path();

} // namespace platform
