// The system calls that a worker may make.
#pragma once

namespace platform {

// Restricts this process and its children to the calls that serving a picture needs. All others
// fail with ENOSYS, as if the kernel did not have them, so that a newer C library falls back on
// older calls. False when the kernel cannot do this or does not permit it; nothing has changed
// then.
bool restrict_calls();

} // namespace platform
