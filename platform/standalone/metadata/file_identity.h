// Identifies a file and its state, to detect that it has been changed or replaced meanwhile.
#pragma once

#include <cstdint>
#include <sys/stat.h>

namespace platform {

struct file_identity {
    bool exists = false;
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modified_s = 0, modified_ns = 0;
    int64_t changed_s = 0, changed_ns = 0;

    bool operator==(const file_identity&) const = default;

    // Compares size and modification time, which a rename does not change.
    bool same_contents(const file_identity& other) const;
};

file_identity identity_of(const struct stat& status);

// The identity of `name` in the open folder, without following links. `exists` is false when there
// is no such file or it cannot be inspected.
file_identity identity_at(int folder, const char* name);

} // namespace platform
