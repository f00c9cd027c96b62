// The rights of the superuser.
#pragma once

namespace platform {

struct capability_needs {
    // The picture or its metadata belongs to another user, so the worker has to act for that user.
    bool foreign_files = false;
    // Without the promise to gain no new privileges the kernel lets only the superuser set up
    // filters.
    bool filters = false;
};

bool has_capabilities();

// Whether the file of an open descriptor can be opened for reading by its user's rights alone.
// Asked of the kernel, which knows access lists and file systems of its own.
bool readable_without_capabilities(int fd);

// Gives up every capability that is not needed. False with errno when the kernel refuses.
bool drop_capabilities(const capability_needs& needs);

} // namespace platform
