// Makes the kernel refuse system calls, as a container may.
#pragma once

#include <cerrno>
#include <initializer_list>

// Names for single operations of prctl.
inline constexpr const char* no_new_privileges_call = "prctl(PR_SET_NO_NEW_PRIVS)";
inline constexpr const char* set_seccomp_call = "prctl(PR_SET_SECCOMP)";

// From now on these calls fail with this error in this process and its children. False when the
// kernel cannot do that.
bool refuse_calls(std::initializer_list<const char*> names, int error_number = EPERM);

// Refuses every call with which a process confines itself.
bool refuse_confinement();
