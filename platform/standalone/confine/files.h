// The files and folders that a worker can still reach: rules of the kernel's Landlock, which checks
// files when they are opened. Files that are open already stay usable, and so does anonymous
// memory.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Rights are the kernel's LANDLOCK_ACCESS_FS_ bits. They apply to a file, or to a folder and
// everything below it; rights that only a folder can have are ignored for a file.
struct file_rule {
    int fd = -1; // open, borrowed; -1: use the path
    std::string path = {};
    uint64_t rights = 0;
    bool needed = false; // the worker cannot work without it
    bool operator==(const file_rule&) const = default;
};

// The places of an item. Empty paths and descriptors of -1 are skipped.
struct item_places {
    int picture = -1;
    int metadata_folder = -1;
    std::string socket_folder = {};
    std::string core_folder = {}; // where core files are written; they can be created, not read
    std::vector<std::string> memory_groups = {};
};
std::vector<file_rule> file_rules(const item_places& places);

// The rights that this version of the kernel's interface knows. All of them are restricted.
uint64_t known_file_rights(int version);

// The folder where the kernel would write a core file, which it does with the rights of the
// process: determined by the text of core_pattern, the size limit of core files, and the working
// folder. Empty when it writes none, when the folder is the root folder, and when a program
// receives the core file.
std::string core_folder(std::string_view pattern, uint64_t size_limit,
                        const std::string& working_folder);

// The version of the kernel's interface; 0 when it has none.
int landlock_version();

// Applies the rules to this process and its children. Where the kernel supports it, TCP, abstract
// sockets of others to which it is not connected, and signals to others are forbidden, too. False
// with errno when the kernel cannot do this or does not permit it, and when a required rule fails;
// nothing is in force then.
bool restrict_files(const std::vector<file_rule>& rules);

} // namespace platform
