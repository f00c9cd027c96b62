// The texts of a contact sheet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/stillimage_client.h"
#include "client/tool/play_schedule.h"

// The file's name from the status document, else from `fallback`, a path.
std::string picture_name(const std::string& status_document, const std::string& fallback);

struct sheet_facts {
    stillimage_picture picture; // full size
    size_t levels = 0;
    uint64_t frames = 1;
    timeline time; // of an animation
};

// "400 x 301, with alpha, 3 levels"; for an animation also the number of frames and the duration.
std::string facts_line(const sheet_facts& facts);

std::string seconds(uint64_t moment, const rate& scale); // "0.12 s"

// "#3  0.12 s" and below it "400 x 301"; for a still picture the size only.
std::string frame_caption(const sheet_facts& facts, uint64_t number, uint64_t start);

std::string level_caption(size_t level, uint32_t width, uint32_t height); // "L1 200 x 151"
