// The timeline as the calls of the tool need it.
#pragma once

#include <cstdint>
#include <string>

#include "client/stillimage_client.h"
#include "client/tool/play_schedule.h"

// The item's, by the status document. A scale beyond most_rate_term is 1.
timeline timeline_of(const std::string& status_document);

// Greatest common divisor of the times that the frames are shown for.
uint64_t common_delay(const stillimage_timeline& shown);
