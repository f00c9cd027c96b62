// From the switches to an open item: the paths that no switch specified, the lock, the metadata and
// its settings. The contract's call is item_to_json_common of platform/document.h.
#pragma once

#include <string>

#include "platform/standalone/metadata/item_metadata.h"

namespace platform {

// Derives the paths, takes the serve lock in the modes that serve, opens the item and its metadata,
// and applies the stored settings. 0, or -1 after a message; the caller then releases what has been
// opened and taken so far: close_item, then release_serve_lock.
int derive_item();

// The open item behind vexa_meta; null while there is none. It says which metadata may be written,
// and how.
const open_item* opened_item();

// Closes the item and frees its entry list; vexa_meta and vexa_metadata are null afterwards. May
// run twice.
void close_item();

// Absolute path of the comm socket, independent of the form of vexa_sock and of the working folder;
// at most 107 bytes. Empty before vexa_standard_to_derived_params.
const std::string& socket_path();

} // namespace platform
