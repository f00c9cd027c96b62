#include "tests/support/plain_item.h"

#include <cstdio>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/clients.h"
#include "platform/run_state.h"
#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/serve_lock.h"
#include "platform/standalone/report/document.h"
#include "platform/standalone/report/status.h"

bool vexa_should_exit = false;
bool vexa_ready = false;
uint64_t mono_auto_shutdown = 0;
uint64_t auto_shutdown_delay_initial = 60'000'000;

namespace plain_item {

item_state state;

namespace {

class plain_context final : public vexa_client_context {
public:
    explicit plain_context(unsigned long new_id) : vexa_client_context(new_id)
    {
        ++state.live_contexts;
    }
    ~plain_context() override { --state.live_contexts; }
};

class plain_frame final : public vexa_video_frame {
public:
    plain_frame() : vexa_video_frame(0) { ++state.live_frames; }
    ~plain_frame() override { --state.live_frames; }
};

// Follows those rules of the program's own reference that the platform relies on.
class plain_reference final : public vexa_video_frame_reference {
public:
    ~plain_reference() override
    {
        if (picture != nullptr && picture->refcount != 0) {
            fprintf(stderr, "WARNING: deleting video reference to frame with refcount=%d\n",
                    picture->refcount);
        }
        delete picture;
    }

    vexa_video_frame* load_frame(long long* error) override
    {
        if (!vexa_ready) {
            *error = error_not_ready;
            return nullptr;
        }
        if (frame_index >= state.frames) {
            return nullptr;
        }
        if (picture == nullptr) {
            picture = new plain_frame;
            fill();
        }
        return picture;
    }

private:
    void fill() const
    {
        const client_context_tracking* client =
            client_context_tracking::get_id(vexa_client_contexts, context_id);
        const bool sized = client != nullptr && client->requested_width > 0;
        picture->buffer_number = 7;
        picture->area_size = buffer_size;
        // A requested size selects another level, visible as another offset of the list.
        picture->scanline_list = {sized ? 5000U : 4096U, sized ? 2245U : 197U};
        picture->scanline_area = picture->scanline_list;
        picture->frame_number = frame_index + 1;
        picture->width = 640;
        picture->height = 480;
        picture->aspect_ratio = {4, 3};
    }

    vexa_video_frame* picture = nullptr;
};

vexa_client_context* new_context(unsigned long id)
{
    if (state.factory_throws) {
        throw std::bad_alloc();
    }
    return new plain_context(id);
}

vexa_video_frame_reference* new_reference(vexa_client_context* /*owner*/)
{
    if (state.factory_throws) {
        throw std::bad_alloc();
    }
    return state.frames_fail ? nullptr : new plain_reference;
}

void note_setting(comm_socket_v4_client* /*client*/, const char* name, std::string& value)
{
    state.hook_calls.push_back(std::string(name) + "=" + value);
}

void note_leaving(comm_socket_v4_client* client)
{
    for (const auto& [id, tracked] : vexa_client_contexts.tracked) {
        if (tracked.client == client) {
            state.left.push_back(id);
        }
    }
    my_client_disconnect_handler(client);
}

} // namespace

void reset()
{
    state = {};
    vexa_should_exit = false;
    vexa_ready = false;
    mono_auto_shutdown = 0;
    auto_shutdown_delay_initial = 60'000'000;
    vexa_client_contexts.new_client_context = new_context;
    vexa_client_contexts.new_video_reference = new_reference;
    on_vexa_client_disconnect = note_leaving;
    vexa_on_metadata_set = note_setting;
}

void make_ready(int ready_state)
{
    state.ready = ready_state;
    vexa_ready = true;
}

} // namespace plain_item

using plain_item::state;

int platform::progress_percent()
{
    return state.percent;
}

std::string_view platform::progress_text()
{
    return state.progress;
}

int platform::ready_state()
{
    return state.ready;
}

const std::string& platform::status_document()
{
    if (state.document_changed) {
        state.document_changed = false;
        ++state.documents_built;
        ++state.generation;
    }
    return state.document;
}

uint64_t platform::status_document_generation()
{
    return state.generation;
}

void platform::set_document_clients(size_t /*count*/)
{
    state.document_changed = true;
}

void platform::mark_document_changed()
{
    state.document_changed = true;
}

bool platform::document_must_wait(uint64_t /*now_us*/)
{
    return state.document_changed && state.document_waits;
}

uint64_t platform::document_due_us()
{
    return 0;
}

bool platform::refresh_document(uint64_t /*now_us*/)
{
    return state.document_changed && !state.document_waits;
}

platform::setting_state platform::store_client_setting(std::string_view name,
                                                       std::string_view value)
{
    if (state.settings != platform::setting_state::REFUSED) {
        state.stored.emplace_back(name, value);
    }
    return state.settings;
}

platform::setting_state platform::client_setting_state(std::string_view /*name*/)
{
    return state.settings;
}

std::string platform::why_settings_are_not_stored()
{
    return "the disk is full";
}

void platform::store_client_settings_now()
{
    ++state.settings_written;
    if (state.settings == platform::setting_state::WAITS) {
        state.settings = platform::setting_state::STORED;
    }
}

const std::string& platform::socket_path()
{
    return state.socket;
}

int platform::store_waiting_settings(uint64_t /*now_us*/)
{
    ++state.settings_looked_at;
    return 0;
}

void platform::flush_status()
{
    ++state.status_flushed;
}

void platform::refresh_serve_lock()
{
    ++state.lock_refreshed;
}

int platform::cnb_open_read_only_descriptor()
{
    if (state.descriptor_fails) {
        return -1;
    }
    const int buffer = memfd_create("plain buffer", MFD_CLOEXEC);
    if (buffer < 0 || ftruncate(buffer, plain_item::buffer_size) != 0) {
        return -1;
    }
    const std::string name = "/proc/self/fd/" + std::to_string(buffer);
    const int read_only = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    close(buffer);
    return read_only;
}
