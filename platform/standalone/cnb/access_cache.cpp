// The whole default buffer is mapped once, when it is allocated, so looking up a range is a bounds
// check and an addition. The remaining task is to spare a writer page faults: making a piece of the
// buffer present with one call costs half as much as the separate faults. The cache remembers the
// pieces for which that was done.
#include "platform/standalone/cnb/access_cache.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <sys/mman.h>

#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/cnb/domain.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 // Linux 5.14
#endif

using namespace platform;

vexa_global_access_cache* vexa_acc_cache = nullptr;

namespace {

constexpr uint64_t max_pieces = (uint64_t{1} << 32) / present_piece;
constexpr uint64_t bits_per_word = 64;

} // namespace

struct vexa_global_access_cache {
    uint64_t serial = 0; // of the mapping that `present` describes
    bool kernel_refuses = false;
    std::array<uint64_t, max_pieces / bits_per_word> present = {}; // one bit per piece
};

namespace {

bool is_present(const vexa_global_access_cache& cache, uint64_t piece)
{
    return (cache.present[piece / bits_per_word] >> piece % bits_per_word & 1) != 0;
}

void forget(vexa_global_access_cache* cache)
{
    cache->serial = default_mapping.serial;
    cache->present = {};
}

// Tried once per piece, whatever the result: a page fault does the same, only more slowly.
void make_piece_present(vexa_global_access_cache* cache, uint64_t piece)
{
    const uint64_t offset = piece * present_piece;
    const uint64_t length = std::min(present_piece, default_mapping.size - offset);
    cache->present[piece / bits_per_word] |= uint64_t{1} << piece % bits_per_word;
    if (the_machine.kernel->advise(default_mapping.base + offset, length, MADV_POPULATE_WRITE) !=
        0) {
        // Older kernels lack this call, and a sandbox may forbid it.
        cache->kernel_refuses = errno == EINVAL || errno == EPERM || errno == ENOSYS;
    }
}

void make_range_present(vexa_global_access_cache* cache, uint64_t first, uint64_t last)
{
    uint64_t left = present_at_once / present_piece;
    for (uint64_t piece = first; piece <= last && left > 0 && !cache->kernel_refuses; ++piece) {
        if (!is_present(*cache, piece)) {
            make_piece_present(cache, piece);
            --left;
        }
    }
}

void prepare_writing(vexa_global_access_cache* cache, uint64_t offset, uint64_t length)
{
    if (length == 0 || cache->kernel_refuses) {
        return;
    }
    if (cache->serial != default_mapping.serial) {
        forget(cache);
    }
    const uint64_t first = offset / present_piece;
    const uint64_t last = (offset + length - 1) / present_piece;
    if (first != last || !is_present(*cache, first)) {
        make_range_present(cache, first, last);
    }
}

// Without a buffer everything is zero, so an empty range of buffer 0 is at the null pointer.
bool lies_inside(uint32_t buffer, uint64_t offset, uint64_t length)
{
    const mapped_buffer& mapped = default_mapping;
    return buffer == mapped.number && offset <= mapped.size && length <= mapped.size - offset;
}

} // namespace

vexa_global_access_cache* vexa_global_access_cache_create()
{
    return new (std::nothrow) vexa_global_access_cache;
}

unsigned char* vexa_global_access_cache_quickfetch(vexa_global_access_cache* cache, uint32_t buffer,
                                                   uint64_t offset, uint64_t length, int mode)
{
    if (!lies_inside(buffer, offset, length)) {
        errno = ENXIO;
        return nullptr;
    }
    if (mode == access_write && cache != nullptr) {
        prepare_writing(cache, offset, length);
    }
    return default_mapping.base + offset;
}

int vexa_global_access_cache_get(vexa_global_access_cache* cache, uint32_t buffer, uint64_t offset,
                                 uint64_t length, unsigned char** data, unsigned long* aux,
                                 int mode)
{
    unsigned char* bytes = vexa_global_access_cache_quickfetch(cache, buffer, offset, length, mode);
    if (bytes == nullptr) {
        return 0;
    }
    *data = bytes;
    *aux = default_mapping.size - offset;
    return 1;
}

void vexa_global_access_cache_cleanup_idle(vexa_global_access_cache* cache)
{
    if (cache != nullptr && cache->serial != default_mapping.serial) {
        forget(cache);
    }
}

void platform::free_access_cache(vexa_global_access_cache* cache)
{
    delete cache;
}
