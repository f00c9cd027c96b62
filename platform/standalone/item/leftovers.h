// The remains of a worker that was killed. Nothing of a live worker is touched: each kind of file
// is only removed under the lock of its writers.
#pragma once

#include <string>

#include "platform/standalone/metadata/metadata_file.h"

namespace platform {

// Removes the dead socket at this absolute path and its lock file. When a live worker serves there,
// prints one line on standard error. Must not be called by the holder of the serve lock.
void remove_dead_socket(const std::string& socket);

// Removes partly written metadata in the item's folder.
void remove_half_written_metadata(const metadata_store& store);

// The same in the folder at this path. A missing folder is not created.
void remove_half_written_metadata(const std::string& folder);

// The name in the default places of a picture that no longer exists; "" when it cannot be
// determined because the folder is missing, too.
std::string name_of_missing_picture(const std::string& picture);

} // namespace platform
