// The frame buffer of the scripted platform: memory that ends at a guard page.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/cnb.h"
#include "platform/run_state.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/scripted_state.h"

int cnb_default_buffer_level = -1;
int cnb_static_alloc = 0;
uint64_t cnb_total = 0;
uint32_t image_cnb_buffer = 0;
int image_cnb_buffer_fd = -1;

struct vexa_global_access_cache {
    int unused = 0;
};

namespace scripted {

namespace {

struct guarded_memory {
    unsigned char* base = nullptr;
    size_t mapped = 0;
    unsigned char* bytes = nullptr;
    uint64_t size = 0;

    void release()
    {
        if (base != nullptr) {
            munmap(base, mapped);
        }
        *this = {};
    }

    void take(uint64_t wanted)
    {
        release();
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t inner = (wanted + page - 1) / page * page;
        mapped = inner + 2 * page;
        void* memory =
            mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) {
            abort();
        }
        base = static_cast<unsigned char*>(memory);
        if (mprotect(base + page, inner, PROT_READ | PROT_WRITE) != 0) {
            abort();
        }
        bytes = base + page + inner - wanted;
        size = wanted;
    }
};

guarded_memory frame_buffer;
vexa_global_access_cache the_cache;

} // namespace

unsigned char* buffer()
{
    return frame_buffer.bytes;
}

uint64_t buffer_size()
{
    return frame_buffer.size;
}

void provide_buffer(uint64_t size, unsigned char fill)
{
    frame_buffer.take(size);
    memset(frame_buffer.bytes, fill, size);
    image_cnb_buffer = 7;
    if (image_cnb_buffer_fd < 0) {
        image_cnb_buffer_fd = memfd_create("buffer", MFD_CLOEXEC);
    }
    vexa_acc_cache = &the_cache;
}

} // namespace scripted

using scripted::log;
using scripted::plan;

// --- buffer -------------------------------------------------------------------------------------

void cnb_alloc_init()
{
    log.calls.emplace_back("cnb_alloc_init");
}

uint64_t cnb_largest_total()
{
    return plan.allocation_limit;
}

int cnb_default_buffer_load()
{
    if (plan.buffer_loads_until_ready > 0) {
        --plan.buffer_loads_until_ready;
        return 1;
    }
    image_cnb_buffer = 7;
    if (image_cnb_buffer_fd < 0) {
        image_cnb_buffer_fd = memfd_create("buffer", MFD_CLOEXEC);
    }
    return 0;
}

void cnb_default_buffer_drop()
{
    scripted::frame_buffer.release();
    if (image_cnb_buffer_fd >= 0) {
        close(image_cnb_buffer_fd);
    }
    image_cnb_buffer = 0;
    image_cnb_buffer_fd = -1;
}

bool cnb_malloc(cnb_allocation* allocation, unsigned long size, const char* name, ...)
{
    log.calls.emplace_back("cnb_malloc");
    if (plan.signal_in_allocation) {
        DIE4 = DIE4 + 1;
        return false;
    }
    if (plan.allocation_fails || size > plan.allocation_limit) {
        return false;
    }
    scripted::provide_buffer(size);
    *allocation = {image_cnb_buffer, 0, size, {}};
    snprintf(allocation->name, sizeof allocation->name, "%s", name);
    return true;
}

void cnb_free(cnb_allocation* allocation)
{
    log.calls.emplace_back("cnb_free");
    *allocation = {};
}

void cnb_alloc_freeall()
{
    log.calls.emplace_back("cnb_alloc_freeall");
}

void cnb_alloc_print_remaining_buffers()
{
    log.calls.emplace_back("cnb_alloc_print_remaining_buffers");
}

vexa_global_access_cache* vexa_global_access_cache_create()
{
    return plan.cache_creation_fails ? nullptr : &scripted::the_cache;
}

unsigned char* vexa_global_access_cache_quickfetch(vexa_global_access_cache* /*cache*/,
                                                   uint32_t buffer, uint64_t offset,
                                                   uint64_t length, int /*mode*/)
{
    ++log.mappings;
    const auto& memory = scripted::frame_buffer;
    if (scripted::counts_out(plan.fail_mapping) || buffer != image_cnb_buffer ||
        memory.bytes == nullptr || offset > memory.size || length > memory.size - offset) {
        errno = ENXIO;
        return nullptr;
    }
    const auto [bad, bad_length] = plan.unmappable;
    if (bad_length != 0 && offset < bad + bad_length && bad < offset + length) {
        errno = ENOMEM;
        return nullptr;
    }
    return memory.bytes + offset;
}

int vexa_global_access_cache_get(vexa_global_access_cache* cache, uint32_t buffer, uint64_t offset,
                                 uint64_t length, unsigned char** data, unsigned long* aux,
                                 int mode)
{
    *data = vexa_global_access_cache_quickfetch(cache, buffer, offset, length, mode);
    if (*data == nullptr) {
        return 0;
    }
    *aux = scripted::frame_buffer.size - offset;
    return 1;
}

void vexa_global_access_cache_cleanup_idle(vexa_global_access_cache* /*cache*/)
{
    log.calls.emplace_back("vexa_global_access_cache_cleanup_idle");
}
