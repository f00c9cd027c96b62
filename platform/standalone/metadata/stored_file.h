// Reads the metadata file as a whole and classifies failures.
#pragma once

#include <string>

#include "platform/standalone/metadata/file_identity.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/metadata_text.h"

namespace platform {

enum class read_result {
    READ,
    ABSENT,
    DAMAGED,     // the file itself is bad and is to be set aside
    UNAVAILABLE, // the file may be intact
};

struct stored_file {
    read_result result = read_result::ABSENT;
    std::string reason; // of DAMAGED and UNAVAILABLE
    text_document document;
    file_identity identity;
};

// Reads the file again, a few times, when it changes while it is read, so that a part is never
// taken for the whole. Prints nothing.
stored_file read_stored(const metadata_store& store);

} // namespace platform
