// The text of a metadata file, as an editor, a damaged disk or another program may leave it: it is
// refused, or read and written without loss, both as text and as a list of entries.

#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_text.h"
#include "tests/support/metadata_text.h"
#include "wire/utf8.h"

namespace {

bool same(const platform::text_entry& a, const platform::text_entry& b)
{
    return a.leading == b.leading && a.name == b.name && a.value == b.value && a.tag == b.tag;
}

// Reading the written text gives the same entries, and writing those gives the same text.
void check_round_trip(const platform::text_document& document, const std::string& text)
{
    platform::text_document again;
    platform::text_fault fault;
    require(platform::parse_metadata(text, &again, &fault));
    require(again.entries.size() == document.entries.size());
    for (size_t i = 0; i < again.entries.size(); ++i) {
        require(same(again.entries[i], document.entries[i]));
    }
    require(again.trailing == document.trailing);
    require(written(again) == text);
}

// Frees every other entry and sets one: the text of the list then holds exactly its entries.
void check_list(platform::text_document&& document, const std::string& text)
{
    const platform::list_owner owner(platform::new_metadata_list(std::move(document)));
    metadata_v4_metadata_context* list = owner.get();
    require(list->text_size == text.size());
    const size_t count = metadata_v4_metadata_context_entry_count(list);
    for (size_t i = 0; i < count; i += 2) {
        metadata_v4_metadata_context_free_metadata_entry(
            list, metadata_v4_metadata_context_read_entry(list, i));
    }
    const bool room = platform::set_item_entry(list, "aspect ratio", "16:9") >= 0;
    const std::string changed = platform::metadata_list_text(*list);
    require(list->text_size == changed.size());
    platform::text_document again;
    platform::text_fault fault;
    if (changed.size() > platform::max_metadata_file) {
        return;
    }
    require(platform::parse_metadata(changed, &again, &fault));
    require(again.entries.size() == list->entries);
    require(!room || platform::find_item_entry(list, "aspect ratio") != nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    platform::text_document document;
    platform::text_fault fault;
    if (!platform::parse_metadata(input, &document, &fault)) {
        require(wire::is_utf8(fault.reason) && *fault.reason != '\0');
        return 0;
    }
    const std::string text = written(document);
    require(wire::is_utf8(text));
    // Escapes can make the text larger than the limit of a file; it is then not written.
    if (text.size() <= platform::max_metadata_file) {
        check_round_trip(document, text);
        check_list(std::move(document), text);
    }
    return 0;
}
