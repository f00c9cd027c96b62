// The CNB domain of this process: which one to join, and what the process has of it. How a domain
// works: docs/cnb-domain.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/standalone/cnb/kernel_calls.h"
#include "platform/standalone/cnb/registry.h"

namespace platform {

inline constexpr const char* default_cnb_domain = "default";
inline constexpr uint64_t default_cnb_limit = 0; // half of the memory that this process may use

// A name is 1 to 64 bytes, without '/' and not beginning with '.'.
bool cnb_domain_name_valid(std::string_view name);

// Chooses the domain and the bytes that its buffers may take together; without effect once a domain
// is joined. The name is checked when it is joined.
void cnb_set_domain(const char* name, uint64_t limit);

// Joins the chosen domain, making its folder when it is the first one there. 0, also when it is
// joined already; -1 after one line on standard error that names path and reason.
int cnb_join_domain();

// Path of the joined domain's folder; empty before one is joined.
std::string cnb_domain_folder();

// Drops the default buffer and leaves the domain. May be called without one and more than once.
void cnb_leave_domain();

// What the status document tells. The name is valid until the next cnb_set_domain.
struct cnb_domain_view {
    const char* name;
    uint64_t limit;       // 0 before the domain is joined
    uint32_t buffer;      // number of the default buffer, 0 while there is none
    uint64_t buffer_size; // bytes registered for it
};
cnb_domain_view cnb_view_domain();

// Called again and again while cnb_malloc reserves a large buffer, so that the comm socket is
// served meanwhile (a gigabyte takes about a fifth of a second). False ends that: cnb_malloc fails.
// May be null; must not call anything of this module. Set by the item.
extern bool (*cnb_reserve_pump)();

// --- for the other units of this room -----------------------------------------------------------

// A buffer's offsets are told to clients in 32 bits.
uint64_t largest_buffer();

// 0 while no domain is joined.
uint64_t domain_limit();

// Claims a buffer number of the domain, joining it first when that has not been done, or when its
// files have been removed meanwhile. `*number` is set when one is TAKEN. FAILED comes with a
// reason.
claim_result claim_in_domain(uint64_t bytes, uint32_t* number, std::string* reason);
void release_in_domain(); // may be called without a claim
void note_domain_owner(); // after a fork the claim is the child's

// What the domain takes from the machine; tests put other things in its place before they join.
struct cnb_machine {
    const kernel_calls* kernel = &system_kernel_calls;
    std::string root; // before /proc and the control groups' folders
};
extern cnb_machine the_machine;

// Bytes of memory that a buffer may take now.
uint64_t memory_for_buffers();

// Bytes of memory that may be taken now beside the buffers. A buffer leaves the whole reserve
// untaken: of that, codecs may have a half, and the worker's own objects a quarter more when
// nothing else is left for them.
struct memory_shares {
    uint64_t codecs;
    uint64_t own_objects;
};
memory_shares memory_beside_buffers();

// Everything of this module back to the values at program start; for tests.
void reset_cnb();

} // namespace platform
