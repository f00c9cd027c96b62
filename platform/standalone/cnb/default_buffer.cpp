#include "platform/standalone/cnb/default_buffer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/cnb.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/cnb/file_size_bound.h"
#include "platform/standalone/cnb/memory_bound.h"
#include "platform/standalone/cnb/shared_buffer.h"

int cnb_default_buffer_level = -1;
int cnb_static_alloc = 0;
uint64_t cnb_total = 0;
uint32_t image_cnb_buffer = 0;
int image_cnb_buffer_fd = -1;

namespace platform {

mapped_buffer default_mapping = {};

namespace {

// Never destroyed, because exit handlers may still use it.
struct loaded_buffer {
    shared_buffer memory;
    uint64_t size = 0;
    std::string refusal; // why it can never be allocated; empty when it can
    uint64_t serials = 0;
    bool told_waiting = false;
};

loaded_buffer& state()
{
    static loaded_buffer& instance = *new loaded_buffer;
    return instance;
}

std::string bytes_text(uint64_t bytes)
{
    return std::to_string(bytes) + " bytes";
}

// Why a buffer of this size can never be allocated, or "".
std::string reason_against(uint64_t bytes)
{
    if (bytes == 0) {
        return "it would be empty";
    }
    if (bytes > largest_buffer()) {
        return "a buffer has at most " + bytes_text(largest_buffer());
    }
    if (bytes > domain_limit()) {
        return "the limit of the domain is " + bytes_text(domain_limit());
    }
    return "";
}

// Failures are reported by cnb_malloc, which the program calls next.
int loaded(uint64_t size, uint32_t number, std::string refusal)
{
    state().size = size;
    state().refusal = std::move(refusal);
    image_cnb_buffer = number;
    image_cnb_buffer_fd = state().memory.fd();
    return 0;
}

// Without free descriptors or memory: both conditions may pass.
int wait_for_descriptor()
{
    if (!std::exchange(state().told_waiting, true)) {
        error_line("cannot make", "CNB buffer", errno);
    }
    return 1;
}

std::string reserve_memory()
{
    loaded_buffer& buffer = state();
    const uint64_t room = memory_for_buffers();
    if (buffer.size > room) {
        return "memory has room for " + bytes_text(room);
    }
    lift_memory_bound();
    const reserve_failure failure = buffer.memory.reserve(buffer.size, cnb_reserve_pump);
    renew_memory_bound();
    if (failure.step != nullptr) {
        return std::string(failure.step) + ": " + error_text(failure.error_number);
    }
    tighten_file_size_bound();
    default_mapping = {image_cnb_buffer, buffer.memory.data(), buffer.memory.size(),
                       ++buffer.serials};
    return "";
}

} // namespace

int create_default_buffer()
{
    shared_buffer& memory = state().memory;
    if (memory.fd() >= 0) {
        return 0;
    }
    memory = shared_buffer(the_machine.kernel);
    return memory.create();
}

uint64_t default_buffer_size()
{
    return state().size;
}

std::string map_default_buffer()
{
    if (image_cnb_buffer_fd < 0) {
        return "it is not loaded";
    }
    if (!state().refusal.empty()) {
        return state().refusal;
    }
    return default_mapping.base != nullptr ? "" : reserve_memory();
}

int cnb_open_read_only_descriptor()
{
    return state().memory.open_read_only();
}

} // namespace platform

using namespace platform;

uint64_t cnb_largest_total()
{
    return std::min(largest_buffer(), domain_limit());
}

int cnb_default_buffer_load()
{
    if (image_cnb_buffer_fd >= 0) {
        note_domain_owner();
        return 0;
    }
    if (create_default_buffer() != 0) {
        return wait_for_descriptor();
    }
    if (cnb_join_domain() != 0) {
        return loaded(cnb_total, 0, "the domain cannot be joined");
    }
    std::string reason = reason_against(cnb_total);
    if (!reason.empty()) {
        return loaded(cnb_total, 0, std::move(reason));
    }
    uint32_t number = 0;
    switch (claim_in_domain(cnb_total, &number, &reason)) {
    case claim_result::TAKEN:
        return loaded(cnb_total, number, "");
    case claim_result::FAILED:
        return loaded(cnb_total, 0, std::move(reason));
    default:
        return 1;
    }
}

void cnb_default_buffer_drop()
{
    cnb_alloc_freeall();
    default_mapping = {};
    image_cnb_buffer = 0;
    image_cnb_buffer_fd = -1;
    state().memory.reset();
    state().size = 0;
    state().refusal.clear();
    state().told_waiting = false;
    // Last, because a buffer counts until its memory is released.
    release_in_domain();
}
