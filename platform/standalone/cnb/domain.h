// The CNB domain as the item and its clients see it: which one to join, what the process has of it,
// and the descriptor that clients get. How a domain works: docs/cnb-domain.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

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

// A description of the default buffer of its own, for a client: it cannot write, resize or remap
// the buffer for writing, and its file offset is nobody else's. The caller closes it. -1 with errno
// while nothing is allocated in the buffer.
int cnb_open_read_only_descriptor();

// Called again and again while cnb_malloc reserves a large buffer, so that the comm socket is
// served meanwhile (a gigabyte takes about a fifth of a second). False ends that: cnb_malloc fails.
// May be null; must not call anything of this module. Set by the item.
extern bool (*cnb_reserve_pump)();
