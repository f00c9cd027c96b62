// Fixture of the TIFF examination tests.
#pragma once

#include <string>

#include "tests/support/tiff_writer.h"
#include "tests/unit/examine/examine_fixture.h"

class TiffExamination : public ExamineFixture {
protected:
    static int examine(const tiff_spec& spec);

    // The file is refused, the last message is `message`, and the file is closed.
    void expect_refusal(const tiff_spec& spec, const std::string& message);

    bool has_printed(const std::string& part); // since the last call
};
