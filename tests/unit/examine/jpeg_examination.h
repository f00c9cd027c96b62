// Fixture of the JPEG examination tests.
#pragma once

#include <cstddef>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bin/examine/jpeg_reader.h"
#include "tests/support/jpeg_fixture.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/open_descriptors.h"
#include "tests/unit/examine/jpeg_failing_calls.h"

class jpeg_examination : public jpeg_test {
protected:
    void SetUp() override
    {
        jpeg_test::SetUp();
        descriptors = open_descriptors();
    }

    void TearDown() override
    {
        failing::none();
        jpeg_test::TearDown();
    }

    // The file is refused, the last message is `line`, and nothing stays open.
    void expect_refusal(const jpeg_writer::file_bytes& file, const std::string& line)
    {
        EXPECT_EQ(examine(file), -1);
        EXPECT_THAT(printed, testing::EndsWith(line));
        expect_closed();
    }

    void expect_closed() const
    {
        EXPECT_EQ(jpeg_fp, nullptr);
        EXPECT_EQ(jpeg_decompress, nullptr);
        EXPECT_EQ(jpeg_error_manager, nullptr);
        EXPECT_FALSE(jpeg_error_armed);
        EXPECT_EQ(open_descriptors(), descriptors + 1); // the picture's own descriptor
    }

    size_t descriptors = 0;
};

inline jpeg_writer::file_bytes ycbcr_file(int width, int height, jpeg_writer::factors luma)
{
    return write(jpeg_writer::ycbcr(width, height, luma));
}
