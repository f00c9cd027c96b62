#include <string>

#include <gtest/gtest.h>

#include "platform/settings.h"
#include "platform/standalone/item/settings.h"
#include "tests/support/item_fixture.h"

namespace {

class Settings : public item_test::ItemFixture {};

TEST_F(Settings, SetStringStoresACopy)
{
    std::string text = "one";
    vexa_set_string(&vexa_file_type, text.c_str());
    text = "two";
    EXPECT_STREQ(vexa_file_type, "one");
    vexa_set_string(&vexa_file_type, nullptr);
    EXPECT_EQ(vexa_file_type, nullptr);
}

TEST_F(Settings, SetStringAcceptsItsOwnText)
{
    vexa_set_string(&vexa_file_type, "image/png");
    vexa_set_string(&vexa_file_type, vexa_file_type);
    EXPECT_STREQ(vexa_file_type, "image/png");
    vexa_set_string(&vexa_file_type, vexa_file_type + 6);
    EXPECT_STREQ(vexa_file_type, "png");
}

TEST_F(Settings, HaveTheirInitialValues)
{
    vexa_oneshot = true;
    vexa_metadata_may_update = false;
    vexa_time_scale = {100, 3};
    platform::from_switches.domain = "x";
    vexa_set_string(&vexa_file, "f");
    platform::reset_settings();
    EXPECT_FALSE(vexa_oneshot);
    EXPECT_TRUE(vexa_metadata_may_update);
    EXPECT_EQ(vexa_time_scale.numerator, 1);
    EXPECT_EQ(vexa_time_scale.denominator, 1);
    EXPECT_EQ(platform::from_switches.domain, "default");
    EXPECT_EQ(vexa_file, nullptr);
}

} // namespace
