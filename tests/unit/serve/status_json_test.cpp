#include <csignal>

#include <json11.hpp>

#include "bin/examine/image_state.h"
#include "bin/serve/status_json.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "tests/unit/serve/serve_fixture.h"

namespace {

class StatusJson : public ServeFixture {
protected:
    void SetUp() override
    {
        ServeFixture::SetUp();
        image_width = 640;
        image_height = 480;
    }

    static std::string info(unsigned long context_id)
    {
        std::map<std::string, json11::Json> document;
        my_custom_json_build(document, context_id);
        EXPECT_EQ(document.size(), 1U);
        return document["image info"].dump();
    }
};

TEST_F(StatusJson, EachTypeHasItsName)
{
    const char* const names[] = {"TIFF", "JPEG", "PNG", "GIF", "WebP"};
    for (int type = 1; type <= 5; ++type) {
        image_file_type = type;
        EXPECT_EQ(info(4), std::string(R"({"context id": 4, "file type": ")") + names[type - 1] +
                               R"(", "height": 480, "width": 640})");
    }
}

TEST_F(StatusJson, NoClientMeansNoContextId)
{
    image_file_type = IMAGE_PNG;
    EXPECT_EQ(info(~0UL), R"({"file type": "PNG", "height": 480, "width": 640})");
}

TEST_F(StatusJson, ContextIdIsTruncatedTo32Bits)
{
    image_file_type = IMAGE_PNG;
    EXPECT_EQ(info(4294967296),
              R"({"context id": 0, "file type": "PNG", "height": 480, "width": 640})");
    EXPECT_EQ(info(4294967295),
              R"({"context id": -1, "file type": "PNG", "height": 480, "width": 640})");
    EXPECT_EQ(info(2147483648),
              R"({"context id": -2147483648, "file type": "PNG", "height": 480, "width": 640})");
}

TEST_F(StatusJson, UnidentifiedPictureIsAnEmptyObject)
{
    for (const int type : {0, -1}) {
        image_file_type = type;
        EXPECT_EQ(info(4), "{}");
    }
}

TEST_F(StatusJson, EarlierValueIsReplacedAndTheRestKept)
{
    image_file_type = IMAGE_GIF;
    std::map<std::string, json11::Json> document = {{"image info", "old"}, {"other", 1}};
    my_custom_json_build(document, ~0UL);
    EXPECT_EQ(document["image info"]["file type"].string_value(), "GIF");
    EXPECT_EQ(document["other"].int_value(), 1);
}

using StatusJsonDeath = StatusJson;

TEST_F(StatusJsonDeath, TypeAboveTheTableAborts)
{
    image_file_type = max_image_type + 1;
    std::map<std::string, json11::Json> document;
    EXPECT_EXIT(my_custom_json_build(document, 4), testing::KilledBySignal(SIGABRT),
                "bin/vexa_stillimage: my_custom_json_build: .*image_file_type <= 5");
}

class MetadataSet : public ServeFixture {
protected:
    static void set(const char* name, const std::string& text)
    {
        std::string value = text;
        my_on_metadata_set(nullptr, name, value);
    }
};

TEST_F(MetadataSet, AspectRatioIsParsed)
{
    set("aspect ratio", "16:9");
    EXPECT_EQ(vexa_aspect_ratio.numerator, 16);
    EXPECT_EQ(vexa_aspect_ratio.denominator, 9);
}

TEST_F(MetadataSet, TextThatIsNoRatioChangesNothing)
{
    vexa_aspect_ratio = {4, 3};
    set("aspect ratio", "wide");
    EXPECT_EQ(vexa_aspect_ratio.numerator, 4);
    EXPECT_EQ(vexa_aspect_ratio.denominator, 3);
}

TEST_F(MetadataSet, BackgroundMusicIsParsed)
{
    set("background music", "on");
    EXPECT_EQ(vexa_background_music, 1);
    set("background music", "off");
    EXPECT_EQ(vexa_background_music, 0);
}

TEST_F(MetadataSet, OtherNamesAreIgnored)
{
    vexa_aspect_ratio = {4, 3};
    vexa_background_music = 5;
    for (const char* name : {"aspect ratio ", "aspect", "Aspect Ratio", "", "background music 2",
                             "background", "title"}) {
        set(name, "16:9");
    }
    EXPECT_EQ(vexa_aspect_ratio.numerator, 4);
    EXPECT_EQ(vexa_background_music, 5);
}

TEST_F(MetadataSet, WorksWhenTheMetadataListIsClosed)
{
    metadata_v4_metadata_close_file(vexa_metadata);
    set("aspect ratio", "2:1");
    EXPECT_EQ(vexa_aspect_ratio.numerator, 2);
}

} // namespace
