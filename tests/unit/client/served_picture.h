// A sample and the picture that the library reads from it.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "client/scanline_record.h"
#include "tests/support/frame_sample.h"

struct served_picture {
    explicit served_picture(const sample_shape& shape) : sample(shape)
    {
        std::string reason;
        EXPECT_TRUE(describe_picture(sample.record(), sample.message.scanline_size, sample.message,
                                     sample.area.data(), &picture, &reason))
            << reason;
    }
    uint8_t at(size_t plane, uint32_t x, uint32_t y) const
    {
        return sample.area[sample.offsets[plane] + y * sample.strides[plane] + x];
    }

    frame_sample sample;
    stillimage_picture picture = {};
};
