// System calls that the surroundings refuse, as a container may.
#pragma once

#include <cerrno>
#include <initializer_list>

// What is asked of prctl under these names.
inline constexpr const char* no_new_privileges_call = "prctl(PR_SET_NO_NEW_PRIVS)";
inline constexpr const char* set_seccomp_call = "prctl(PR_SET_SECCOMP)";

// From now on these calls of this process and its children fail with this error. False when the
// kernel cannot do that.
bool refuse_calls(std::initializer_list<const char*> names, int error_number = EPERM);

// Refuses all that a process confines itself with.
bool refuse_confinement();
