#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/standalone/metadata/metadata_list.h"
#include "tests/unit/metadata/metadata_fixture.h"

namespace {

using platform::find_item_entry;
using platform::set_item_entry;

int add(const list_owner& list, const char* name, const char* value, int tag = -1)
{
    return metadata_v4_metadata_context_add_name_value_pair(list.get(), name, 0, value, 0, tag);
}

metadata_v4_entry* slot(const list_owner& list, size_t index)
{
    return metadata_v4_metadata_context_read_entry(list.get(), index);
}

size_t count(const list_owner& list)
{
    return metadata_v4_metadata_context_entry_count(list.get());
}

void free_slot(const list_owner& list, size_t index)
{
    metadata_v4_metadata_context_free_metadata_entry(list.get(), slot(list, index));
}

std::string text_of(const list_owner& list)
{
    return platform::metadata_list_text(*list);
}

TEST(MetadataList, AddedEntriesAreReadInOrder)
{
    const list_owner list = list_from("");
    EXPECT_EQ(add(list, "a", "1"), 0);
    EXPECT_EQ(add(list, "a", "2", 7), 0);
    ASSERT_EQ(count(list), 2U);
    EXPECT_STREQ(slot(list, 0)->name, "a");
    EXPECT_STREQ(slot(list, 0)->value, "1");
    EXPECT_EQ(slot(list, 0)->tag, -1);
    EXPECT_EQ(slot(list, 1)->name_length, 1U);
    EXPECT_STREQ(slot(list, 1)->value, "2");
    EXPECT_EQ(slot(list, 1)->value_length, 1U);
    EXPECT_EQ(slot(list, 1)->tag, 7);
    EXPECT_EQ(slot(list, 2), nullptr);
}

TEST(MetadataList, LengthsTruncateTheTextsAndZeroMeansAll)
{
    const list_owner list = list_from("");
    EXPECT_EQ(
        metadata_v4_metadata_context_add_name_value_pair(list.get(), "image", 2, "size", 3, 0), 0);
    EXPECT_STREQ(slot(list, 0)->name, "im");
    EXPECT_STREQ(slot(list, 0)->value, "siz");
    EXPECT_EQ(add(list, "", ""), 0);
    EXPECT_EQ(slot(list, 1)->name_length, 0U);
    EXPECT_STREQ(slot(list, 1)->value, "");
}

TEST(MetadataList, TextsAreCopied)
{
    const list_owner list = list_from("");
    std::string name = "name";
    EXPECT_EQ(add(list, name.c_str(), "v"), 0);
    name = "XXXX";
    EXPECT_STREQ(slot(list, 0)->name, "name");
}

TEST(MetadataList, EntriesKeepTheirAddressesWhileTheListGrows)
{
    const list_owner list = list_from("");
    EXPECT_EQ(add(list, "first", "1"), 0);
    const metadata_v4_entry* first = slot(list, 0);
    const char* name = first->name;
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(add(list, "more", "2"), 0);
    }
    EXPECT_EQ(slot(list, 0), first);
    EXPECT_EQ(first->name, name);
    EXPECT_STREQ(name, "first");
}

TEST(MetadataList, NulInsideATextIsRefused)
{
    const list_owner list = list_from("");
    EXPECT_EQ(metadata_v4_metadata_context_add_name_value_pair(list.get(), "a\0b", 3, "c", 1, -1),
              -1);
    EXPECT_EQ(metadata_v4_metadata_context_add_name_value_pair(list.get(), "a", 1, "b\0c", 3, -1),
              -1);
    EXPECT_EQ(count(list), 0U);
}

TEST(MetadataList, NullTextsAreRefused)
{
    const list_owner list = list_from("");
    EXPECT_EQ(add(list, nullptr, "v"), -1);
    EXPECT_EQ(add(list, "n", nullptr), -1);
}

TEST(MetadataList, FreedEntryLeavesAHole)
{
    const list_owner list = list_from("a = 1\nb = 2\nc = 3\n");
    free_slot(list, 1);
    EXPECT_EQ(count(list), 3U);
    EXPECT_EQ(slot(list, 1), nullptr);
    EXPECT_STREQ(slot(list, 2)->name, "c");
    EXPECT_EQ(text_of(list), "a = 1\nc = 3\n");
}

TEST(MetadataList, EntryMayBeFreedTwice)
{
    const list_owner list = list_from("a = 1\n");
    metadata_v4_entry* entry = slot(list, 0);
    metadata_v4_metadata_context_free_metadata_entry(list.get(), entry);
    metadata_v4_metadata_context_free_metadata_entry(list.get(), entry);
    metadata_v4_metadata_context_free_metadata_entry(list.get(), nullptr);
    EXPECT_EQ(list->entries, 0U);
    EXPECT_EQ(list->text_size, text_of(list).size());
}

// Frees entries during a walk, as examination does, in lists made of such entries, holes and
// entries without a name.
TEST(MetadataList, WalkThatFreesEntriesVisitsEachOne)
{
    const list_owner list =
        list_from("image size = 1\nimage size = 2\n = 3\nimage size = 4\n[1] image size = 5\n"
                  "image size = 6\n");
    for (size_t i = 0; i < count(list); ++i) {
        const metadata_v4_entry* entry = slot(list, i);
        if (entry != nullptr && entry->tag == -1 && entry->name_length == strlen("image size") &&
            memcmp(entry->name, "image size", entry->name_length) == 0) {
            free_slot(list, i);
        }
    }
    EXPECT_EQ(add(list, "image size", "7 x 8"), 0);
    EXPECT_EQ(text_of(list), " = 3\n[1] image size = 5\nimage size = 7 x 8\n");
}

TEST(MetadataList, HundredThousandEntriesAreFreedAndAddedAgain)
{
    const list_owner list = list_from("");
    for (int i = 0; i < 100000; ++i) {
        ASSERT_EQ(add(list, "image size", "1 x 1"), 0);
    }
    for (size_t i = 0; i < count(list); ++i) {
        free_slot(list, i);
    }
    EXPECT_EQ(text_of(list), "");
    EXPECT_EQ(add(list, "a", "b"), 0);
    EXPECT_EQ(text_of(list), "a = b\n");
}

TEST(MetadataList, AddedEntriesAreLimited)
{
    const list_owner list = list_from("");
    const std::string long_name(platform::max_entry_name + 1, 'n');
    const std::string long_value(platform::max_entry_value + 1, 'v');
    EXPECT_EQ(add(list, long_name.c_str(), "v"), -1);
    EXPECT_EQ(add(list, long_name.c_str() + 1, "v"), 0);
    EXPECT_EQ(add(list, "n", long_value.c_str()), -1);
    EXPECT_EQ(add(list, "n", long_value.c_str() + 1), 0);
}

TEST(MetadataList, NumberOfEntriesIsLimited)
{
    const list_owner list = list_from("");
    for (size_t i = 0; i < platform::max_metadata_entries; ++i) {
        ASSERT_EQ(add(list, "a", "b"), 0);
    }
    EXPECT_EQ(add(list, "a", "b"), -1);
    EXPECT_EQ(set_item_entry(list.get(), "new", "b"), -1);
    free_slot(list, 0);
    EXPECT_EQ(add(list, "a", "b"), 0);
}

TEST(MetadataList, HolesCountTowardsTheLimit)
{
    const list_owner list = list_from("");
    size_t added = 0;
    while (add(list, "a", "b") == 0) {
        free_slot(list, added);
        ++added;
        ASSERT_LT(added, 10 * platform::max_metadata_entries);
    }
    EXPECT_EQ(added, 4 * platform::max_metadata_entries);
}

TEST(MetadataList, TextNeverExceedsTheLimitOfAFileThatIsRead)
{
    const list_owner list = list_from("");
    const std::string megabyte(platform::max_entry_value,
                               '\x01'); // escaped, each is four bytes
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(add(list, "a", megabyte.c_str()), 0);
    }
    EXPECT_EQ(add(list, "a", megabyte.c_str()), -1);
    EXPECT_LE(text_of(list).size(), platform::max_metadata_file);
    EXPECT_EQ(set_item_entry(list.get(), "b", "small"), 1);
    EXPECT_EQ(set_item_entry(list.get(), "b", megabyte), -1);
    EXPECT_STREQ(find_item_entry(list.get(), "b")->value, "small");
}

TEST(MetadataList, KnowsTheSizeOfItsText)
{
    const list_owner list = list_from("# c\na = 1\n\nb = 2\n# end\n");
    EXPECT_EQ(list->text_size, text_of(list).size());
    add(list, "x\n", "y");
    set_item_entry(list.get(), "a", "a longer value");
    free_slot(list, 1);
    EXPECT_EQ(list->text_size, text_of(list).size());
}

TEST(MetadataList, ClosedListBehavesLikeAnEmptyOne)
{
    const list_owner list = list_from("a = 1\n");
    metadata_v4_entry* entry = slot(list, 0);
    metadata_v4_metadata_close_file(list.get());
    EXPECT_EQ(count(list), 0U);
    EXPECT_EQ(slot(list, 0), nullptr);
    EXPECT_EQ(find_item_entry(list.get(), "a"), nullptr);
    EXPECT_EQ(add(list, "b", "2"), -1);
    EXPECT_EQ(set_item_entry(list.get(), "b", "2"), -1);
    metadata_v4_metadata_context_free_metadata_entry(list.get(), entry);
    metadata_v4_metadata_close_file(list.get());
    EXPECT_EQ(count(list), 0U);
}

TEST(MetadataList, NullListBehavesLikeAnEmptyOne)
{
    EXPECT_EQ(metadata_v4_metadata_context_entry_count(nullptr), 0U);
    EXPECT_EQ(metadata_v4_metadata_context_read_entry(nullptr, 0), nullptr);
    EXPECT_EQ(metadata_v4_metadata_context_add_name_value_pair(nullptr, "a", 0, "b", 0, -1), -1);
    EXPECT_EQ(find_item_entry(nullptr, "a"), nullptr);
    metadata_v4_metadata_context_free_metadata_entry(nullptr, nullptr);
    metadata_v4_metadata_close_file(nullptr);
    platform::free_metadata_list(nullptr);
}

TEST(MetadataList, FindReturnsTheItemsFirstEntryOfThatName)
{
    const list_owner list = list_from("aspect = 0\n[1] aspect ratio = 1\naspect ratio = 2\n"
                                      "aspect ratio = 3\n");
    ASSERT_NE(find_item_entry(list.get(), "aspect ratio"), nullptr);
    EXPECT_STREQ(find_item_entry(list.get(), "aspect ratio")->value, "2");
    EXPECT_EQ(find_item_entry(list.get(), "aspect ratio "), nullptr);
    EXPECT_EQ(find_item_entry(list.get(), ""), nullptr);
}

TEST(MetadataList, SetChangesInPlaceAndKeepsTheRest)
{
    const list_owner list = list_from("# mine\na = 1\nb = 2\n[1] a = 3\na = 4\n# end\n");
    EXPECT_EQ(set_item_entry(list.get(), "a", "new"), 1);
    EXPECT_EQ(text_of(list), "# mine\na = new\nb = 2\n[1] a = 3\n# end\n");
    EXPECT_EQ(set_item_entry(list.get(), "a", "new"), 0);
    EXPECT_EQ(set_item_entry(list.get(), "z", "9"), 1);
    EXPECT_EQ(text_of(list), "# mine\na = new\nb = 2\n[1] a = 3\nz = 9\n# end\n");
}

TEST(MetadataList, SetRefusesWhatAddRefuses)
{
    const list_owner list = list_from("a = 1\n");
    EXPECT_EQ(set_item_entry(list.get(), "a", std::string_view("x\0y", 3)), -1);
    EXPECT_EQ(set_item_entry(list.get(), std::string_view("a\0", 2), "x"), -1);
    EXPECT_EQ(set_item_entry(nullptr, "a", "x"), -1);
    EXPECT_EQ(text_of(list), "a = 1\n");
}

TEST(MetadataList, FreedEntryKeepsTheCommentsBeforeIt)
{
    const list_owner list = list_from("# about a\na = 1\nb = 2\n");
    free_slot(list, 0);
    EXPECT_EQ(text_of(list), "# about a\nb = 2\n");
}

TEST(MetadataList, FileOfCommentsAloneKeepsThemAtTheTop)
{
    const list_owner list = list_from("# mine\n\n");
    EXPECT_EQ(add(list, "a", "1"), 0);
    EXPECT_EQ(text_of(list), "# mine\n\na = 1\n");
}

TEST(MetadataList, NewListStartsWithEditingInstructions)
{
    const list_owner list(platform::new_metadata_list());
    EXPECT_EQ(add(list, "a", "1"), 0);
    EXPECT_EQ(text_of(list),
              "# Metadata of one media item. One entry a line: name = value\na = 1\n");
    EXPECT_EQ(list->text_size, text_of(list).size());
}

} // namespace
