// The system calls that a worker may make.
#pragma once

namespace platform {

// What only some workers do after start-up.
struct call_needs {
    bool daemon = false;        // goes to the background: starts one child
    bool foreign_files = false; // keeps the owner and mode of another user's metadata
};

// Restricts this process and its children to the calls that serving a picture needs. All others
// fail with ENOSYS, as if the kernel did not have them, so that a newer C library falls back on
// older calls. False with errno when the kernel cannot do this or does not permit it; nothing has
// changed then.
bool restrict_calls(const call_needs& needs);

// Takes away what restrict_calls allowed for going to the background. To be called by the child.
bool restrict_calls_of_daemon();

} // namespace platform
