// Which files and folders a worker can still reach: rules of the kernel's Landlock, which looks at
// what is opened from now on. What is open already stays usable, and so does memory without a name.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Rights are the kernel's LANDLOCK_ACCESS_FS_ bits. They hold for a file, or for a folder and all
// that is below it; of those that only a folder can have, a file gets none.
struct file_rule {
    int fd = -1; // open, and borrowed; -1: the path counts
    std::string path = {};
    uint64_t rights = 0;
    bool needed = false; // without it the worker could not do its work
    bool operator==(const file_rule&) const = default;
};

// An item's places. Empty paths and descriptors of -1 are left out.
struct item_places {
    int picture = -1;
    int metadata_folder = -1;
    std::string socket_folder = {};
    std::string domain_folder = {}; // may be made anew, and its registry with it
    std::string core_folder = {};
    std::vector<std::string> memory_groups = {};
};
std::vector<file_rule> file_rules(const item_places& places);

// The rights that a kernel of this version of the interface knows. None of them is left without a
// rule.
uint64_t known_file_rights(int version);

// Where the kernel would leave a core file, which it does with the rights of the process: by the
// text of core_pattern, the limit to a core file's size, and the working folder. Empty where it
// leaves none or would leave it in the root folder, and when a program receives it.
std::string core_folder(std::string_view pattern, uint64_t size_limit,
                        const std::string& working_folder);

// Puts the rules into force for this process and its children, and with them, where the kernel can,
// no TCP, no signals to others, and no abstract sockets of others unless they are `abstract_sockets`
// to be reached. False when the kernel cannot or may not, and when a rule that is needed fails:
// nothing is in force then.
bool restrict_files(const std::vector<file_rule>& rules, bool abstract_sockets);

} // namespace platform
