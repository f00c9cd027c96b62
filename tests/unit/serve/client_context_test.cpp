#include <memory>

#include "bin/examine/image_state.h"
#include "bin/serve/client_context.h"
#include "platform/settings.h"
#include "tests/support/failing_calls.h"
#include "tests/unit/serve/serve_fixture.h"

namespace {

class ClientContext : public ServeFixture {
protected:
    void SetUp() override
    {
        ServeFixture::SetUp();
        image_width = 640;
        image_height = 480;
        vexa_time_duration = 7;
        image_mapping_total = 80;
    }
};

TEST_F(ClientContext, CarriesIdSizeAndDuration)
{
    image_file_type = IMAGE_PNG;
    const stillimage_client_context context(9);
    EXPECT_EQ(context.id, 9U);
    EXPECT_EQ(context.picture_width, 640);
    EXPECT_EQ(context.picture_height, 480);
    EXPECT_EQ(context.duration, 7U);
}

TEST_F(ClientContext, GifLastsForTheTotalOfItsDelays)
{
    image_file_type = IMAGE_GIF;
    EXPECT_EQ(stillimage_client_context(9).duration, 80U);
}

TEST_F(ClientContext, FactoryReturnsTheSame)
{
    image_file_type = IMAGE_GIF;
    const std::unique_ptr<vexa_client_context> context(my_new_client_context(~0UL));
    ASSERT_NE(dynamic_cast<stillimage_client_context*>(context.get()), nullptr);
    EXPECT_EQ(context->id, ~0UL);
    EXPECT_EQ(context->picture_width, 640);
    EXPECT_EQ(context->picture_height, 480);
    EXPECT_EQ(context->duration, 80U);
}

TEST_F(ClientContext, EarlyClientGetsThePictureFactsAfterTheExamination)
{
    image_width = image_height = -1;
    image_file_type = 0;
    vexa_time_duration = 0;
    stillimage_client_context early(9);
    vexa_client_contexts.tracked[9].context = &early;
    vexa_client_contexts.tracked[10].context = nullptr;
    image_width = 640;
    image_height = 480;
    image_file_type = IMAGE_GIF;
    update_client_contexts();
    EXPECT_EQ(early.picture_width, 640);
    EXPECT_EQ(early.picture_height, 480);
    EXPECT_EQ(early.duration, 80U);
    vexa_client_contexts.tracked.clear();
}

TEST_F(ClientContext, FailedAllocationReturnsNull)
{
    failing_calls::plan.new_object = 1;
    EXPECT_EQ(my_new_client_context(9), nullptr);
}

} // namespace
