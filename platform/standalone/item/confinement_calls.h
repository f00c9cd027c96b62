// Which system calls a worker can still make.
#pragma once

namespace item {

// From now on this process and its children may make the calls that serving a picture takes. All
// others fail with EPERM, and those that a C library tries before it falls back on an older one
// with ENOSYS. False when the kernel cannot or may not; nothing is changed then.
bool restrict_calls();

} // namespace item
