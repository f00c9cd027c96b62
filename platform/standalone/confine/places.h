// What confinement has to know of the running worker.
#pragma once

#include "platform/standalone/confine/calls.h"
#include "platform/standalone/confine/files.h"
#include "platform/standalone/metadata/item_metadata.h"

namespace platform {

// The places that the worker still needs. With `core_files` the folder that the kernel writes core
// files into is one of them.
item_places present_places(const open_item& opened, bool core_files);

// True when the picture, the metadata folder or a file in it can only be used by acting for another
// user, which only the superuser can.
bool has_foreign_files(const open_item& opened);

// The size in bytes that no file of the worker's exceeds, apart from the buffer's memory file.
uint64_t largest_own_file();

// True when messages or progress are written into files of somebody else, which may be of any size.
bool writes_foreign_files();

} // namespace platform
