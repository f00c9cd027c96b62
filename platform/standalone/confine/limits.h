// Limits of the process besides that of its address space.
#pragma once

namespace platform {

// No process or thread can be started. False with errno when the kernel refuses.
bool forbid_processes();

// A crash writes no core file, no program receives one, and other processes of the user cannot look
// into this one. False with errno when the kernel refuses.
bool forbid_core_files();

// The kernel refuses memory that is both writable and executable, and memory that becomes
// executable later. Returns 1 when it does, 0 when it does not know how, -1 with errno when it
// refuses.
int forbid_new_code();

// Closes every descriptor above the standard ones that whoever started this process left open,
// which is every one that an exec would have kept. False with errno when they cannot be found.
bool close_inherited_descriptors();

} // namespace platform
