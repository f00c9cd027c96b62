// Allocations in the default buffer, ordered by offset. The program makes one allocation that fills
// the buffer (cnb_static_alloc); otherwise the first gap that is large enough is used.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/cnb.h"
#include "platform/standalone/cnb/default_buffer.h"

namespace platform {

namespace {

constexpr uint64_t alignment = 64;

// Never destroyed, because exit handlers may still use it.
struct allocation_list {
    std::vector<cnb_allocation*> live; // owned by the callers
    uint64_t touched = 0;              // end of the bytes that were allocated before ...
    uint64_t serial = 0;               // ... in this mapping
};

allocation_list& state()
{
    static allocation_list& instance = *new allocation_list;
    return instance;
}

bool is_empty(const cnb_allocation& allocation)
{
    return allocation.buffer == 0 && allocation.size == 0;
}

// The offset for `size` bytes, or UINT64_MAX.
uint64_t find_gap(uint64_t size)
{
    uint64_t offset = 0;
    for (const cnb_allocation* allocation : state().live) {
        if (cnb_static_alloc != 0) {
            return UINT64_MAX;
        }
        if (allocation->offset >= offset && allocation->offset - offset >= size) {
            return offset;
        }
        offset = (allocation->offset + allocation->size + alignment - 1) / alignment * alignment;
    }
    const bool fits = offset <= default_mapping.size && size <= default_mapping.size - offset;
    return fits ? offset : UINT64_MAX;
}

// Fresh memory is zero already; only bytes of an earlier allocation are cleared.
void clear_what_was_touched(uint64_t offset, uint64_t size)
{
    allocation_list& list = state();
    if (std::exchange(list.serial, default_mapping.serial) != default_mapping.serial) {
        list.touched = 0;
    }
    const uint64_t end = std::min(offset + size, list.touched);
    if (offset < end) {
        memset(default_mapping.base + offset, 0, end - offset);
    }
    list.touched = std::max(list.touched, offset + size);
}

void keep_name(cnb_allocation* allocation, const char* name)
{
    const size_t length = name == nullptr ? 0 : strnlen(name, sizeof allocation->name - 1);
    if (length > 0) {
        memcpy(allocation->name, name, length);
    }
}

void insert(cnb_allocation* allocation)
{
    std::vector<cnb_allocation*>& live = state().live;
    const auto behind = [](const cnb_allocation* a, const cnb_allocation* b) {
        return a->offset < b->offset;
    };
    live.insert(std::upper_bound(live.begin(), live.end(), allocation, behind), allocation);
}

// Empty on success, otherwise the reason.
std::string allocate(cnb_allocation* allocation, uint64_t size, const char* name)
{
    if (!is_empty(*allocation)) {
        return "the record holds an allocation already";
    }
    std::string reason = map_default_buffer();
    if (!reason.empty()) {
        return reason;
    }
    const uint64_t offset = size > 0 ? find_gap(size) : UINT64_MAX;
    if (offset == UINT64_MAX) {
        return "the buffer has no room for it";
    }
    clear_what_was_touched(offset, size);
    *allocation = {default_mapping.number, offset, size, {}};
    keep_name(allocation, name);
    insert(allocation);
    return "";
}

} // namespace

} // namespace platform

using namespace platform;

void cnb_alloc_init()
{
    cnb_alloc_freeall();
}

bool cnb_malloc(cnb_allocation* allocation, unsigned long size, const char* name, ...)
{
    const std::string reason = allocate(allocation, size, name);
    if (!reason.empty()) {
        // The caller reports that the allocation failed, but not why.
        fprintf(stderr, "CNB allocation of %lu bytes: %s\n", size, reason.c_str());
    }
    return reason.empty();
}

void cnb_free(cnb_allocation* allocation)
{
    std::erase(state().live, allocation);
    *allocation = {};
}

void cnb_alloc_freeall()
{
    for (cnb_allocation* allocation : state().live) {
        *allocation = {};
    }
    state().live.clear();
}

void cnb_alloc_print_remaining_buffers()
{
    for (const cnb_allocation* allocation : state().live) {
        fprintf(stderr, "%s: %lu bytes at %lu of CNB buffer %u\n", allocation->name,
                allocation->size, allocation->offset, allocation->buffer);
    }
}
