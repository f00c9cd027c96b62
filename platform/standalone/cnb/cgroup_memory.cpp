// A process names its groups relative to the root of each hierarchy. The mount table says where
// that root is visible and which part of the hierarchy is mounted there. The limit of every group
// up to the root applies.
#include "platform/standalone/cnb/cgroup_memory.h"

#include <algorithm>

#include "platform/standalone/cnb/small_file.h"

namespace platform {

namespace {

// A limit and the usage that counts towards it.
struct limit_files {
    const char* limit;
    const char* usage;
};

struct version_files {
    limit_files limits[2];
    const char* reclaimable; // line of memory.stat with the bytes that the kernel can reclaim
};

// Above memory.high a process is not killed, but throttled until it makes no progress.
constexpr version_files files_of_version[] = {
    {{{"/memory.limit_in_bytes", "/memory.usage_in_bytes"},
      {"/memory.memsw.limit_in_bytes", "/memory.memsw.usage_in_bytes"}},
     "total_inactive_file"},
    {{{"/memory.max", "/memory.current"}, {"/memory.high", "/memory.current"}}, "inactive_file"},
};

// Version 1 reports "no limit" as the largest multiple of the page size.
constexpr uint64_t smallest_absurd_limit = uint64_t{1} << 62;

const version_files& files_of(const memory_cgroup& group)
{
    return files_of_version[group.version - 1];
}

// no_memory_limit for a file that is missing or does not contain a number, such as "max".
uint64_t read_limit(const std::string& path)
{
    const uint64_t limit = leading_number(read_small_file(path), no_memory_limit);
    return limit < smallest_absurd_limit ? limit : no_memory_limit;
}

uint64_t reclaimable_bytes(const memory_cgroup& group)
{
    const std::string statistics = read_small_file(group.folder + "/memory.stat");
    return number_of_line(statistics, files_of(group).reclaimable, 0);
}

uint64_t room_under(uint64_t limit, uint64_t usage, uint64_t reclaimable)
{
    const uint64_t taken = usage - std::min(usage, reclaimable);
    return taken < limit ? limit - taken : 0;
}

// Removes and returns the part of `rest` before `separator`; the separator is removed, too.
std::string_view take_until(std::string_view* rest, char separator)
{
    const std::string_view part = rest->substr(0, rest->find(separator));
    rest->remove_prefix(std::min(rest->size(), part.size() + 1));
    return part;
}

bool list_has(std::string_view list, std::string_view word)
{
    while (!list.empty()) {
        if (take_until(&list, ',') == word) {
            return true;
        }
    }
    return false;
}

// The mount table escapes blanks and backslashes as \ooo.
std::string unescaped(std::string_view text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool escape = text[i] == '\\' && i + 3 < text.size();
        if (escape) {
            const int code =
                (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0');
            plain += static_cast<char>(code);
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

struct hierarchy_mount {
    int version = 0; // 0: no memory hierarchy
    std::string root;
    std::string folder;
};

// A line is: id parent device ROOT FOLDER options [tags...] - TYPE source SUPER_OPTIONS
hierarchy_mount parse_mount(std::string_view line)
{
    hierarchy_mount mount;
    for (int field = 0; field < 3; ++field) {
        take_until(&line, ' ');
    }
    mount.root = unescaped(take_until(&line, ' '));
    mount.folder = unescaped(take_until(&line, ' '));
    while (!line.empty() && take_until(&line, ' ') != "-") {
    }
    const std::string_view type = take_until(&line, ' ');
    take_until(&line, ' ');
    if (type == "cgroup2") {
        mount.version = 2;
    } else if (type == "cgroup" && list_has(line, "memory")) {
        mount.version = 1;
    }
    return mount;
}

// A line is: number:controllers:path. For version 2 the controllers are empty.
bool path_of_membership(std::string_view membership, int version, std::string_view* path)
{
    while (!membership.empty()) {
        std::string_view line = take_until(&membership, '\n');
        take_until(&line, ':');
        const std::string_view controllers = take_until(&line, ':');
        if (version == 2 ? controllers.empty() : list_has(controllers, "memory")) {
            *path = line;
            return !line.empty();
        }
    }
    return false;
}

// The part of `path` below `root`: "" for the root itself and for a path that this mount does not
// show.
std::string_view below_root(std::string_view path, std::string_view root)
{
    if (root == "/") {
        root = "";
    }
    const bool below = path.starts_with(root) &&
                       (path.size() == root.size() || path[root.size()] == '/') &&
                       path.find("/..") == std::string_view::npos;
    std::string_view rest = below ? path.substr(root.size()) : std::string_view();
    while (rest.ends_with('/')) {
        rest.remove_suffix(1);
    }
    return rest;
}

void append_with_parents(std::vector<memory_cgroup>* groups, const hierarchy_mount& mount,
                         std::string_view relative)
{
    for (;; relative = relative.substr(0, relative.rfind('/'))) {
        groups->push_back({mount.folder + std::string(relative), mount.version});
        if (relative.empty()) {
            return;
        }
    }
}

} // namespace

std::vector<memory_cgroup> find_memory_cgroups(std::string_view membership, std::string_view mounts)
{
    std::vector<memory_cgroup> groups;
    for (const int version : {1, 2}) {
        std::string_view path;
        if (!path_of_membership(membership, version, &path)) {
            continue;
        }
        for (std::string_view rest = mounts; !rest.empty();) {
            const hierarchy_mount mount = parse_mount(take_until(&rest, '\n'));
            if (mount.version == version) {
                append_with_parents(&groups, mount, below_root(path, mount.root));
                break;
            }
        }
    }
    return groups;
}

uint64_t cgroup_memory_limit(const memory_cgroup& group)
{
    uint64_t tightest = no_memory_limit;
    for (const limit_files& files : files_of(group).limits) {
        tightest = std::min(tightest, read_limit(group.folder + files.limit));
    }
    return tightest;
}

uint64_t cgroup_memory_room(const memory_cgroup& group)
{
    uint64_t room = no_memory_limit;
    for (const limit_files& files : files_of(group).limits) {
        const uint64_t limit = read_limit(group.folder + files.limit);
        if (limit != no_memory_limit) {
            const std::string usage = read_small_file(group.folder + files.usage);
            room = std::min(room,
                            room_under(limit, leading_number(usage, 0), reclaimable_bytes(group)));
        }
    }
    return room;
}

} // namespace platform
