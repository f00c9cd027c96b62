// Frames: requesting, validating and holding them.
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

// Waits until the picture is ready and returns the number of the frame shown at that moment. The
// frame itself is released at once.
stillimage_result find_frame_number(stillimage_client& client, uint64_t moment,
                                    const deadline& until, uint64_t* number);

// Sets the output size of the next frames, unless the worker already has it.
stillimage_result set_output_size(stillimage_client& client, int32_t width, int32_t height,
                                  const deadline& until);
