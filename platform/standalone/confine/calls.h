// Which system calls a worker can still make.
#pragma once

namespace platform {

// From now on this process and its children may make the calls that serving a picture takes. All
// others fail with ENOSYS, as if the kernel did not have them, so that a newer C library falls back
// on older ones. False when the kernel cannot or may not; nothing is changed then.
bool restrict_calls();

} // namespace platform
