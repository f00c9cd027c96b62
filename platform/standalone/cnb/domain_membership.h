// The domain that this process has joined.
#pragma once

#include <cstdint>
#include <string>

#include "platform/standalone/cnb/kernel_calls.h"
#include "platform/standalone/cnb/memory_room.h"
#include "platform/standalone/cnb/registry.h"

namespace platform {

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
