#include "tests/unit/examine/examine_fixture.h"

#include "bin/examine/formats.h"
#include "bin/examine/image_state.h"
#include "bin/examine/jpeg_reader.h"
#include "bin/examine/tiff.h"
#include "bin/examine/webp.h"
#include "platform/item_metadata.h"
#include "tests/support/open_descriptors.h"

namespace {

void reset_examination()
{
    free_all_readers();
    reset_tiff();
    reset_webp();
    reset_jpeg_reader();
    reset_image_state();
}

} // namespace

void ExamineFixture::SetUp()
{
    start_over();
    descriptors_at_start_ = open_descriptors();
    testing::internal::CaptureStderr();
    captured_ = true;
}

void ExamineFixture::TearDown()
{
    leave_stderr_alone();
    failing_calls::plan = {};
    reset_examination();
    reset_examination();
    scripted::reset();
    EXPECT_EQ(open_descriptors(), descriptors_at_start_);
}

void ExamineFixture::start_over()
{
    scripted::reset();
    failing_calls::plan = {};
    reset_examination();
}

std::string ExamineFixture::printed()
{
    std::string text = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return text;
}

void ExamineFixture::leave_stderr_alone()
{
    if (captured_) {
        testing::internal::GetCapturedStderr();
        captured_ = false;
    }
}

void ExamineFixture::add_entry(const std::string& name, const std::string& value, int tag)
{
    metadata_v4_metadata_context_add_name_value_pair(vexa_metadata, name.c_str(), 0, value.c_str(),
                                                     0, tag);
}

std::vector<std::string> ExamineFixture::entries()
{
    std::vector<std::string> found;
    for (size_t i = 0; i < metadata_v4_metadata_context_entry_count(vexa_metadata); ++i) {
        const auto* entry = metadata_v4_metadata_context_read_entry(vexa_metadata, i);
        if (entry != nullptr) {
            found.push_back(std::string(entry->name) + "=" + entry->value);
        }
    }
    return found;
}
