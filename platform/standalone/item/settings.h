// What was asked of this process: the shared settings of platform/media_item.h, defined in this
// unit, and the ones that only the media item itself needs.
#pragma once

#include <cstdint>
#include <string>

#include "platform/standalone/cnb/domain.h"

namespace platform {

// Beside the shared variables. Written by the switches alone.
struct own_settings {
    std::string domain = default_cnb_domain;
    uint64_t domain_limit = default_cnb_limit; // bytes
    // What a switch has set is not taken from the metadata.
    bool file_type_given = false;
    bool aspect_ratio_given = false;
    bool background_music_given = false;
};

extern own_settings own;

// True unless the mode ends before anything is served.
bool mode_serves();

// All settings and run state as at program start. For vexa_free_all's texts, tests and fuzzers.
void reset_settings();

// Frees the texts among the shared settings; they are null afterwards.
void free_setting_texts();

} // namespace platform
