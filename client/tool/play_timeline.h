// What play and sheet need of an item's timeline.
#pragma once

#include <cstdint>
#include <string>

#include "client/stillimage_client.h"
#include "client/tool/play_schedule.h"

// Reads the timeline from the status document. A scale with a number above max_rate_term becomes 1.
timeline timeline_of(const std::string& status_document);

// Greatest common divisor of the entries' durations.
uint64_t common_delay(const stillimage_timeline& shown);
