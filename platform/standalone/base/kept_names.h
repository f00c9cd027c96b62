// Names of files that the process may still remove or rename after it has confined itself. A filter
// of system calls sees the address of a name, but not its text. So the names are copied to
// addresses that only they can have, into memory that nobody can write any more, and the filter
// compares addresses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// Names in one folder, which is open under one or more descriptors.
struct kept_folder {
    std::vector<int> descriptors; // borrowed; they must stay open
    std::vector<std::string> names;
};

// Where the names of a folder are: each multiple of `slot` from `first` to `last` is the address of
// one name. `slot` is a power of two.
struct kept_places {
    std::vector<int> descriptors;
    uintptr_t first;
    uintptr_t last;
    uintptr_t slot;
};

// Copies the names; an earlier copy is no longer used. Empty when the kernel does not provide the
// memory; names are then used as they are.
std::vector<kept_places> keep_names(const std::vector<kept_folder>& folders);

// The first address behind the copies. Everything else that the process has mapped lies above it.
uintptr_t end_of_kept_names();

// The copy of a name in the folder, or `name` itself when it is not kept.
const char* kept_name(int folder, const char* name);

} // namespace platform
