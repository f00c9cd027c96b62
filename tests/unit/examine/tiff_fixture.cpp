#include "tests/unit/examine/tiff_fixture.h"

#include "bin/examine/tiff.h"

int TiffExamination::examine(const tiff_spec& spec)
{
    scripted::set_picture(write_tiff(spec));
    return examine_tiff_file();
}

void TiffExamination::expect_refusal(const tiff_spec& spec, const std::string& message)
{
    EXPECT_EQ(examine(spec), 1);
    const std::string text = printed();
    ASSERT_GE(text.size(), message.size());
    EXPECT_EQ(text.substr(text.size() - message.size()), message) << text;
    EXPECT_EQ(tiff_image, nullptr);
    EXPECT_EQ(tiff_bps, 0U);
    EXPECT_EQ(tiff_strips, 0U);
}

bool TiffExamination::has_printed(const std::string& part)
{
    return printed().find(part) != std::string::npos;
}
