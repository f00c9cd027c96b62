// The colour models that TIFF examination accepts, and their chroma subsampling.
#include "bin/examine/image_state.h"
#include "bin/examine/tiff.h"
#include "tests/unit/examine/tiff_fixture.h"

namespace {

// --- colour models ------------------------------------------------------------------------------

struct model_case {
    const char* name;
    uint32_t photometric;
    uint32_t samples;
    int is_monochrome;
    int has_alpha;
};

class TiffModel : public TiffExamination, public testing::WithParamInterface<model_case> {};

TEST_P(TiffModel, DecidesThePlanes)
{
    const model_case& model = GetParam();
    image_is_monochrome = image_has_alpha_channel = 7;
    ASSERT_EQ(examine(plain_tiff(4, 4, model.samples, model.photometric)), 0);
    EXPECT_EQ(image_is_monochrome, model.is_monochrome);
    EXPECT_EQ(image_has_alpha_channel, model.has_alpha);
}

INSTANTIATE_TEST_SUITE_P(
    Models, TiffModel,
    testing::Values(model_case{"Rgb", 2, 3, 0, 0}, model_case{"RgbAlpha", 2, 4, 0, 1},
                    model_case{"RgbSix", 2, 6, 0, 1}, model_case{"Ycbcr", 6, 3, 0, 0},
                    model_case{"White", 0, 1, 1, 0}, model_case{"WhiteAlpha", 0, 2, 1, 1},
                    model_case{"Black", 1, 1, 1, 0}, model_case{"BlackAlpha", 1, 2, 1, 1},
                    model_case{"Palette", 3, 1, 0, 0}, model_case{"PaletteTwo", 3, 2, 0, 0},
                    model_case{"Cmyk", 5, 4, 0, 0}, model_case{"CmykAlpha", 5, 5, 0, 1}),
    [](const auto& model) { return model.param.name; });

struct too_few_case {
    const char* name;
    uint32_t photometric;
    uint32_t samples;
    const char* message;
};

class TiffTooFew : public TiffExamination, public testing::WithParamInterface<too_few_case> {};

TEST_P(TiffTooFew, AreRefused)
{
    expect_refusal(plain_tiff(4, 4, GetParam().samples, GetParam().photometric),
                   GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Models, TiffTooFew,
    testing::Values(too_few_case{"Rgb", 2, 2, "RGB format requires at least 3 channels\n"},
                    too_few_case{"Cmyk", 5, 3, "cmyk format requires at least 4 channels\n"}),
    [](const auto& model) { return model.param.name; });

TEST_F(TiffExamination, YcbcrNeedsThreeSamplesAndUsesAFourthAsAlpha)
{
    // The library itself opens such files only with three samples.
    failing_calls::plan.tiff_samples = 2;
    expect_refusal(plain_tiff(4, 4, 3, 6), "YCbCr format requires at least 3 channels\n");
    failing_calls::plan.tiff_samples = 4;
    ASSERT_EQ(examine(plain_tiff(4, 4, 3, 6)), 0);
    EXPECT_EQ(image_is_monochrome, 0);
    EXPECT_EQ(image_has_alpha_channel, 1);
}

TEST_F(TiffExamination, ZeroSamplesAreRefusedByEachModel)
{
    // No file can have 0 samples since the library turns 0 into 1, but the tag is read as 0 here.
    for (const auto& [photometric, message] :
         {std::pair{0U, "white/black grayscale format requires at least 1 channel\n"},
          std::pair{1U, "white/black grayscale format requires at least 1 channel\n"},
          std::pair{3U, "palettized format requires at least 1 channel\n"}}) {
        failing_calls::plan.tiff_samples = 0;
        expect_refusal(plain_tiff(4, 4, 1, photometric), message);
    }
}

TEST_F(TiffExamination, OtherModelsAreUnknown)
{
    for (const uint32_t photometric : {4U, 8U, 9U, 32844U, 32845U, 12345U}) {
        expect_refusal(plain_tiff(4, 4, photometric == 4 ? 1 : 3, photometric),
                       "Unknown TIFF color format\n");
    }
}

TEST_F(TiffExamination, OtherInkSetsAreUnknown)
{
    for (const uint32_t ink_set : {0U, 2U, 3U}) {
        tiff_spec spec = plain_tiff(4, 4, 4, 5);
        spec.set_short(332, {ink_set});
        expect_refusal(spec, "Unknown TIFF color format\n");
    }
}

// --- chroma subsampling -------------------------------------------------------------------------

TEST_F(TiffExamination, SubsamplingGivesTheShifts)
{
    for (const auto& [factor, shift] : {std::pair{1U, 0}, std::pair{2U, 1}, std::pair{4U, 2}}) {
        tiff_spec spec = plain_tiff(16, 16, 3, 6);
        spec.set_short(530, {factor, 1});
        ASSERT_EQ(examine(spec), 0);
        EXPECT_EQ(image_chroma_x_shift, shift);
        EXPECT_EQ(image_chroma_y_shift, 0);
        EXPECT_TRUE(has_printed("YCbCr subsampling: " + std::to_string(factor) + ", 1\n"));
        free_all_tiff();
    }
    tiff_spec spec = plain_tiff(16, 16, 3, 6);
    spec.set_short(530, {4, 2});
    ASSERT_EQ(examine(spec), 0);
    EXPECT_EQ(image_chroma_x_shift, 2);
    EXPECT_EQ(image_chroma_y_shift, 1);
}

TEST_F(TiffExamination, MissingSubsamplingIsTwoByTwoAfterAWarning)
{
    ASSERT_EQ(examine(plain_tiff(16, 16, 3, 6)), 0);
    EXPECT_EQ(image_chroma_x_shift, 1);
    EXPECT_EQ(image_chroma_y_shift, 1);
    EXPECT_TRUE(has_printed("Warning: TIFF library does not provide YCbCr subsampling info\n"
                            "YCbCr subsampling: 2, 2\n"));
}

TEST_F(TiffExamination, SubsamplingByThreeIsRefused)
{
    for (const auto& factors : {std::pair{3U, 1U}, std::pair{1U, 3U}, std::pair{0U, 1U},
                                std::pair{1U, 8U}, std::pair{5U, 5U}}) {
        tiff_spec spec = plain_tiff(16, 16, 3, 6);
        spec.set_short(530, {factors.first, factors.second});
        EXPECT_EQ(examine(spec), 1);
        EXPECT_EQ(tiff_image, nullptr);
    }
    tiff_spec spec = plain_tiff(16, 16, 3, 6);
    spec.set_short(530, {1, 2});
    failing_calls::plan.tiff_factors = {1, 3};
    expect_refusal(spec, "YCbCr subsampling: 1, 3\nInvalid YCbCr subsampling\n");
    failing_calls::plan.tiff_factors = {3, 1};
    expect_refusal(spec, "YCbCr subsampling: 3, 1\nInvalid YCbCr subsampling\n");
}

} // namespace
