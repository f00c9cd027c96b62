// Reading the metadata file as a whole, and telling apart why it cannot be read.
#pragma once

#include <string>

#include "platform/standalone/metadata/file_identity.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/metadata_text.h"

namespace platform {

enum class read_result {
    READ,
    ABSENT,
    DAMAGED,     // the file's own fault: it is to be set aside
    UNAVAILABLE, // not the file's fault
};

struct stored_file {
    read_result result = read_result::ABSENT;
    std::string reason; // of DAMAGED and UNAVAILABLE
    text_document document;
    file_identity identity;
};

// A part of a file is never taken for a whole: a file that changes while it is read is read again, a
// few times. Nothing is printed.
stored_file read_stored(const metadata_store& store);

} // namespace platform
