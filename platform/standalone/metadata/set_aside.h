// What was found in the item's metadata folder and cannot be read is kept under another name.
#pragma once

#include "platform/standalone/metadata/metadata_store.h"

namespace platform {

inline constexpr const char* set_aside_name = "metadata.damaged-"; // and a number from 1
inline constexpr int max_set_aside = 100;

// Gives the file `name` the first free one of these names. Says so, or why not and returns false.
// Only under the lock.
bool set_aside(const metadata_store& store, const char* name);

} // namespace platform
