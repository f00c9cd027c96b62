// Frames: asking for one, judging what comes, holding it.
#pragma once

#include <memory>
#include <vector>

#include "client/connection.h"

struct stillimage_frame {
    std::shared_ptr<shared_area> area;
    std::vector<unsigned char> scanline; // private copy of the record's area
    stillimage_picture picture = {};
    stillimage_descriptor_info descriptor = {};
    uint64_t reference = 0;
    stillimage_client* owner = nullptr; // null once the connection is closed
};

stillimage_result get_frame(stillimage_client& client, const comm_protocol::get_frame& wanted,
                            const deadline& until, std::unique_ptr<stillimage_frame>* frame);

// The number of the frame shown at that moment once the picture is ready. The frame itself is given
// back at once.
stillimage_result find_frame_number(stillimage_client& client, uint64_t moment,
                                    const deadline& until, uint64_t* number);

// Tells the worker which output size the next frames are for, unless it knows.
stillimage_result set_output_size(stillimage_client& client, int32_t width, int32_t height,
                                  const deadline& until);
