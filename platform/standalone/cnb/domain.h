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

// A name has 1 to 64 bytes, contains no '/' and does not begin with '.'.
bool cnb_domain_name_valid(std::string_view name);

// Selects the domain and the total size of its buffers in bytes. Has no effect after a domain is
// joined. The name is checked when the domain is joined.
void cnb_set_domain(const char* name, uint64_t limit);

// Joins the selected domain and creates its folder if necessary. 0, also when it is already joined;
// -1 after one line on standard error with path and reason.
int cnb_join_domain();

// Path of the joined domain's folder; empty before one is joined.
std::string cnb_domain_folder();

// Drops the default buffer and leaves the domain. May be called without one and more than once.
void cnb_leave_domain();

// What the status document shows. The name is valid until the next cnb_set_domain.
struct cnb_domain_view {
    const char* name;
    uint64_t limit;       // 0 before the domain is joined
    uint32_t buffer;      // number of the default buffer, 0 while there is none
    uint64_t buffer_size; // bytes registered for it
};
cnb_domain_view cnb_view_domain();

// Called repeatedly while cnb_malloc reserves a large buffer, so that the comm socket is served
// meanwhile (a gigabyte takes about a fifth of a second). Returning false makes cnb_malloc fail.
// May be null; must not call anything of this module. Set by the life cycle.
extern bool (*cnb_reserve_pump)();

// --- for the other units of this room -----------------------------------------------------------

// Limited by the 32-bit offsets that clients receive.
uint64_t largest_buffer();

// 0 while no domain is joined.
uint64_t domain_limit();

// Claims a buffer number of the joined domain. `*number` is set when the result is TAKEN; FAILED
// comes with a reason.
claim_result claim_in_domain(uint64_t bytes, uint32_t* number, std::string* reason);

// Reserves the number for it, so that later nothing but the record has to be written. Before that,
// a registry in which somebody has locked every number is set aside, after one line. False when no
// number can be had.
bool reserve_in_domain();
registry_record record_in_domain(); // the file is -1 outside of a domain

void release_in_domain(); // may be called without a claim
void note_domain_owner(); // after a fork the claim is the child's

// What the domain uses of the machine; tests replace it before they join.
struct cnb_machine {
    const kernel_calls* kernel = &system_kernel_calls;
    std::string root; // before /proc and the control groups' folders
};
extern cnb_machine the_machine;

// Bytes of memory that a buffer may use now.
uint64_t memory_for_buffers();

// Bytes of memory that may be used now beside the buffers. A buffer leaves the whole reserve free.
// Of the reserve codecs may use one half; the worker's own objects may use a further quarter when
// nothing else is left for them.
struct memory_shares {
    uint64_t codecs;
    uint64_t own_objects;
};
memory_shares memory_beside_buffers();

// Resets this module to its values at program start; for tests.
void reset_cnb();

} // namespace platform
