#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/standalone/metadata/metadata_guid.h"
#include "tests/unit/metadata/metadata_fixture.h"

namespace {

TEST(MetadataGuid, IsARandomUuidOfVersionFour)
{
    std::set<char> variants;
    for (int i = 0; i < 1000; ++i) {
        const std::string guid = platform::random_guid();
        ASSERT_THAT(guid,
                    testing::MatchesRegex(
                        "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
        variants.insert(guid[19]);
    }
    EXPECT_EQ(variants, (std::set<char>{'8', '9', 'a', 'b'}));
}

TEST(MetadataGuid, EachIsDifferent)
{
    std::set<std::string> guids;
    for (int i = 0; i < 1000; ++i) {
        guids.insert(platform::random_guid());
    }
    EXPECT_EQ(guids.size(), 1000U);
}

TEST(MetadataGuid, IsAddedOnce)
{
    const list_owner list = list_from("a = 1\n");
    EXPECT_NE(auto_generate_metadata_guid(list.get()), 0);
    const metadata_v4_entry* entry = platform::find_item_entry(list.get(), "GUID");
    ASSERT_NE(entry, nullptr);
    const std::string guid = entry->value;
    EXPECT_EQ(guid.size(), 36U);
    EXPECT_EQ(auto_generate_metadata_guid(list.get()), 0);
    EXPECT_EQ(platform::find_item_entry(list.get(), "GUID")->value, guid);
    EXPECT_EQ(list->entries, 2U);
}

TEST(MetadataGuid, StoredOneIsKept)
{
    const list_owner list = list_from("GUID = mine\n");
    EXPECT_EQ(auto_generate_metadata_guid(list.get()), 0);
    EXPECT_STREQ(platform::find_item_entry(list.get(), "GUID")->value, "mine");
}

TEST(MetadataGuid, OneThatBelongsToAPartOfTheItemDoesNotCount)
{
    const list_owner list = list_from("[1] GUID = stream\n");
    EXPECT_NE(auto_generate_metadata_guid(list.get()), 0);
    EXPECT_EQ(list->entries, 2U);
}

TEST(MetadataGuid, ClosedOrMissingListGetsNone)
{
    const list_owner list = list_from("");
    metadata_v4_metadata_close_file(list.get());
    EXPECT_EQ(auto_generate_metadata_guid(list.get()), 0);
    EXPECT_EQ(auto_generate_metadata_guid(nullptr), 0);
}

} // namespace
