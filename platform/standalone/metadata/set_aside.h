// Files in the item's metadata folder that cannot be read are kept under another name.
#pragma once

#include "platform/standalone/metadata/metadata_store.h"

namespace platform {

inline constexpr const char* set_aside_name = "metadata.damaged-"; // and a number from 1
inline constexpr int max_set_aside = 100;

// Renames the file `name` to the first free one of these names. Prints the result; false on
// failure. The caller holds the lock.
bool set_aside(const metadata_store& store, const char* name);

} // namespace platform
