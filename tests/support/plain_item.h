// A stand-in for the item in plain memory: the test sets the state, settings are recorded, frames
// are numbers and the frame buffer is a small memfd. For tests of the service for clients without a
// picture, a metadata file or a domain.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/standalone/item/client_settings.h"

namespace plain_item {

struct item_state {
    int percent = 0;
    std::string progress;
    int ready = 0;
    std::string document = R"({"a": 1})";
    bool document_changed = false; // a rebuild is due
    bool document_waits = false;   // but not yet
    unsigned documents_built = 0;
    uint64_t generation = 1;
    std::vector<std::pair<std::string, std::string>> stored;
    platform::setting_state settings = platform::setting_state::STORED; // the result of storing one
    unsigned settings_written = 0;   // calls of store_client_settings_now
    unsigned settings_looked_at = 0; // calls of store_waiting_settings
    unsigned status_flushed = 0;     // calls of flush_status
    std::string socket;
    int lock_refreshed = 0; // calls of refresh_serve_lock
    uint64_t frames = 1;
    int live_frames = 0;                 // frame objects that exist
    int live_contexts = 0;               // context objects that exist
    bool frames_fail = false;            // the factory returns null
    bool factory_throws = false;         // the factories throw bad_alloc
    bool descriptor_fails = false;       // opening the buffer's descriptor
    std::vector<std::string> hook_calls; // "name=value" of vexa_on_metadata_set
    std::vector<unsigned long> left;     // context ids at on_vexa_client_disconnect
};

extern item_state state;

// Restores the state at program start, with the factories and hooks registered.
void reset();

// Reports this ready state and sets vexa_ready.
void make_ready(int ready_state);

inline constexpr uint64_t buffer_size = 8192;

} // namespace plain_item
