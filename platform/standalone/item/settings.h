// The settings of this process: the shared ones of platform/settings.h, defined in this unit, and
// those that only the media item itself needs.
#pragma once

#include <cstdint>
#include <string>

#include "platform/standalone/cnb/domain.h"

namespace platform {

// The values of switches that only the item needs. Written by the switches.
struct switch_settings {
    std::string domain = default_cnb_domain;
    uint64_t domain_limit = default_cnb_limit; // bytes
    bool core_files = false;                   // a crash may write a core file
    bool require_confinement = false;          // without it the worker does not start
    // Settings from a switch are not overridden by the metadata.
    bool file_type_given = false;
    bool aspect_ratio_given = false;
    bool background_music_given = false;
};

extern switch_settings from_switches;

// False in the modes that end without serving.
bool mode_serves();

// Resets all settings to the values at program start, for tests and fuzzers.
void reset_settings();

// Frees the texts among the shared settings; they are null afterwards.
void free_setting_texts();

} // namespace platform
