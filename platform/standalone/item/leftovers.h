// What a worker that was killed has left. Nothing of a live one is touched: each kind of file is only
// removed under the lock of those who write it.
#pragma once

#include <string>

#include "platform/standalone/metadata/metadata_file.h"

namespace platform {

// The dead socket at this absolute path, and its lock file. When a live worker serves there, that is
// one line on standard error. Not to be called by who holds the serve lock.
void remove_dead_socket(const std::string& socket);

// Half-written metadata in the item's folder.
void remove_half_written_metadata(const metadata_store& store);

// The same in the folder at this path. One that is not there is not made.
void remove_half_written_metadata(const std::string& folder);

// The name that the default places of a picture had that is no longer there; "" when nobody can tell,
// since its folder is gone, too.
std::string name_of_missing_picture(const std::string& picture);

} // namespace platform
