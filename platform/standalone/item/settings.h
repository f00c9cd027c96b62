// The settings of this process: the shared ones of platform/settings.h, defined in this unit, and
// those that only the media item itself needs.
#pragma once

#include <cstdint>
#include <string>

#include "platform/standalone/cnb/domain.h"

namespace platform {

// In addition to the shared variables. Written only by the switches.
struct own_settings {
    std::string domain = default_cnb_domain;
    uint64_t domain_limit = default_cnb_limit; // bytes
    // Settings from a switch are not overridden by the metadata.
    bool file_type_given = false;
    bool aspect_ratio_given = false;
    bool background_music_given = false;
};

extern own_settings own;

// False in the modes that end without serving.
bool mode_serves();

// Resets all settings and the run state to the values at program start, for tests and fuzzers.
void reset_settings();

// Frees the texts among the shared settings; they are null afterwards.
void free_setting_texts();

} // namespace platform
