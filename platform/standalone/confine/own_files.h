// Ties what remains of the right to remove files and to send messages to what this worker has of
// its own: its socket, lock, metadata and log, its record in the domain, its service manager.
#pragma once

namespace platform {

// Connects to the service manager and reserves the worker's number in the domain, which the rules
// for files would prevent. The item has been derived and the domain joined.
void take_own_places();

// After take_own_places. False when the kernel cannot do this or does not
// permit it.
bool restrict_to_own_files();

} // namespace platform
