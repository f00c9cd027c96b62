// CNB domain: numbered shared-memory buffers under one size limit, and the cache of their mappings.
#pragma once

#include <cstdint>

// A range of the process's default buffer. A value-initialised record is empty; a release empties
// it again.
struct cnb_allocation {
    uint32_t buffer = 0; // buffer number, 0 when empty
    uint64_t offset = 0;
    uint64_t size = 0;
    char name[32] = {};
};

// Mapping modes of the access cache.
inline constexpr int access_read = 0;
inline constexpr int access_write = 4;

extern int cnb_default_buffer_level; // written by the program before anything else
extern int cnb_static_alloc;         // 1: the buffer holds one allocation, at offset 0
extern uint64_t cnb_total;           // requested size of the default buffer in bytes

// The loaded default buffer; 0 and -1 while there is none. Written by the platform.
extern uint32_t image_cnb_buffer;
extern int image_cnb_buffer_fd;

void cnb_alloc_init();

// The largest cnb_total that is possible: cnb_malloc refuses more. Known once the domain is joined.
uint64_t cnb_largest_total();

// Loads the process's default buffer of cnb_total bytes. 0 when it is loaded, non-zero while the
// domain has no room for it yet. Returns at once. A request that can never be satisfied also
// returns 0, with a descriptor but with number 0; cnb_malloc then refuses it.
int cnb_default_buffer_load();

// Returns the default buffer to the domain. May be called without one and more than once.
void cnb_default_buffer_drop();

// Allocates `size` bytes of the default buffer, really reserved and zeroed. The name is data, not a
// format. False, after one line on standard error, when the size does not fit the domain, the
// buffer or the machine's memory, or when the record is in use. A record must not move before its
// release.
bool cnb_malloc(cnb_allocation* allocation, unsigned long size, const char* name, ...);

// Releases an allocation and empties its record; an empty record is fine. A copy of a record is
// only emptied.
void cnb_free(cnb_allocation* allocation);
void cnb_alloc_freeall();
void cnb_alloc_print_remaining_buffers(); // one line on standard error per live allocation

// --- access cache -------------------------------------------------------------------------------

struct vexa_global_access_cache;

// The process's cache, set by the program; null until then.
extern vexa_global_access_cache* vexa_acc_cache;

// Null when there is no memory.
vexa_global_access_cache* vexa_global_access_cache_create();

// A pointer to `length` bytes of `buffer` from `offset`, or null with errno when the range is not
// inside the buffer (ENXIO). Overlapping requests alias each other; pointers stay valid until the
// buffer is dropped. With access_write the pages of the range are made present in advance.
unsigned char* vexa_global_access_cache_quickfetch(vexa_global_access_cache* cache, uint32_t buffer,
                                                   uint64_t offset, uint64_t length, int mode);

// The same with a result: non-zero on success. `aux` receives the number of bytes that may be read
// from *data, up to the end of the buffer: at least `length`.
int vexa_global_access_cache_get(vexa_global_access_cache* cache, uint32_t buffer, uint64_t offset,
                                 uint64_t length, unsigned char** data, unsigned long* aux,
                                 int mode);

// Releases what the cache can create again. Never invalidates a pointer into a loaded buffer.
void vexa_global_access_cache_cleanup_idle(vexa_global_access_cache* cache);
