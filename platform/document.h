// The status document that clients receive as JSON. docs/status.md describes its contents.
#pragma once

#include <cstdint>
#include <map>
#include <string>

struct metadata_v4_metadata_context;
namespace json11 {
class Json; // <json11.hpp> is for those who write the hook
}

extern bool json_next_xmit_rebuild; // the document is rebuilt before it is next sent

// The id that stands for "no client" when the document is built.
inline constexpr unsigned long no_context_id = ~0UL;

// Hook of the program, called with the document when it is built. Null: none.
extern void (*vexa_on_json_build)(std::map<std::string, json11::Json>& document,
                                  unsigned long context_id);

void meta_to_json(metadata_v4_metadata_context* list); // copies the entries into the document
void item_to_json_common();            // copies the item's own values into the document
void rebuild_json();                   // builds the document again
void json_check_xmit(uint64_t now_us); // rebuilds on request, sends changes to subscribers
