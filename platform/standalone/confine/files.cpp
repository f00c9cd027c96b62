#include "platform/standalone/confine/files.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

// --- the kernel's interface ---------------------------------------------------------------------

// Rights and attributes of later versions, which a header may not define yet.
constexpr uint64_t first_rights = (uint64_t{1} << 13) - 1;
constexpr uint64_t right_to_refer = uint64_t{1} << 13;    // 2
constexpr uint64_t right_to_truncate = uint64_t{1} << 14; // 3
constexpr uint64_t right_to_ioctl = uint64_t{1} << 15;    // 5
constexpr int version_with_network = 4;
constexpr uint64_t tcp_rights = 3; // bind, connect
constexpr int version_with_scopes = 6;
constexpr uint64_t scope_abstract_sockets = 1;
constexpr uint64_t scope_signals = 2;

// An older kernel accepts the longer structure as long as the fields that it does not know are
// zero.
struct ruleset_attributes {
    uint64_t files;
    uint64_t network;
    uint64_t scoped;
};

unique_fd create_ruleset(int version)
{
    ruleset_attributes attributes = {known_file_rights(version), 0, 0};
    if (version >= version_with_network) {
        attributes.network = tcp_rights;
    }
    if (version >= version_with_scopes) {
        attributes.scoped = scope_signals | scope_abstract_sockets;
    }
    return unique_fd(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
}

// --- rules --------------------------------------------------------------------------------------

constexpr uint64_t to_read = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr uint64_t to_read_and_write = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE;
constexpr uint64_t to_keep_files =
    to_read | to_read_and_write | right_to_truncate | LANDLOCK_ACCESS_FS_MAKE_REG;

constexpr uint64_t rights_of_a_file =
    LANDLOCK_ACCESS_FS_EXECUTE | to_read_and_write | right_to_truncate | right_to_ioctl;

// Files that the C library may open by itself: time zones, translations, character sets and the
// modules for them.
constexpr const char* library_places[] = {"/etc/ld.so.cache",  "/etc/localtime",
                                          "/usr/lib",          "/usr/lib64",
                                          "/usr/share/locale", "/usr/share/zoneinfo"};

void append(std::vector<file_rule>* rules, const std::string& path, uint64_t rights, bool needed)
{
    if (!path.empty()) {
        rules->push_back({.path = path, .rights = rights, .needed = needed});
    }
}

void append(std::vector<file_rule>* rules, int fd, uint64_t rights)
{
    if (fd >= 0) {
        rules->push_back({.fd = fd, .rights = rights, .needed = true});
    }
}

bool add_rule(int ruleset, int version, const file_rule& rule)
{
    unique_fd opened;
    int fd = rule.fd;
    if (fd < 0) {
        opened.reset(open_file(rule.path.c_str(), O_PATH));
        fd = opened.get();
    }
    struct stat status = {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        return false;
    }
    landlock_path_beneath_attr beneath = {};
    beneath.allowed_access = rule.rights & known_file_rights(version);
    if (!S_ISDIR(status.st_mode)) {
        beneath.allowed_access &= rights_of_a_file;
    }
    beneath.parent_fd = fd;
    // A pipe, a socket or memory is in no folder and needs no rule.
    return syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0) == 0 ||
           errno == EBADFD;
}

} // namespace

std::vector<file_rule> file_rules(const item_places& places)
{
    std::vector<file_rule> rules;
    append(&rules, places.picture, LANDLOCK_ACCESS_FS_READ_FILE);
    append(&rules, places.metadata_folder, to_keep_files | LANDLOCK_ACCESS_FS_REMOVE_FILE);
    append(&rules, places.socket_folder, LANDLOCK_ACCESS_FS_REMOVE_FILE, true);
    // The kernel writes the file with the rights of the process: without the first of these there
    // is no file, without the second it stays empty.
    append(&rules, places.core_folder, LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_WRITE_FILE,
           false);
    append(&rules, "/dev/null", to_read_and_write, false);
    append(&rules, "/dev/urandom", LANDLOCK_ACCESS_FS_READ_FILE, false);
    append(&rules, "/proc", to_read, false);
    for (const std::string& group : places.memory_groups) {
        append(&rules, group, LANDLOCK_ACCESS_FS_READ_FILE, false);
    }
    for (const char* place : library_places) {
        append(&rules, place, to_read, false);
    }
    return rules;
}

uint64_t known_file_rights(int version)
{
    uint64_t rights = first_rights;
    rights |= version >= 2 ? right_to_refer : 0;
    rights |= version >= 3 ? right_to_truncate : 0;
    rights |= version >= 5 ? right_to_ioctl : 0;
    return rights;
}

std::string core_folder(std::string_view pattern, uint64_t size_limit,
                        const std::string& working_folder)
{
    const bool to_a_program = pattern.starts_with('|') || pattern.starts_with('@');
    if (size_limit == 0 || pattern.empty() || to_a_program) {
        return "";
    }
    // The parts of the pattern for process id and name are only known when the process dies.
    const std::string_view fixed = pattern.substr(0, pattern.find('%'));
    std::string folder = fixed.starts_with('/') ? "" : working_folder + '/';
    folder += fixed;
    folder.resize(folder.rfind('/'));
    folder.resize(folder.find_last_not_of('/') + 1);
    return folder;
}

int landlock_version()
{
    const long version =
        syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return version > 0 ? static_cast<int>(version) : 0;
}

bool restrict_files(const std::vector<file_rule>& rules)
{
    const int version = landlock_version();
    if (version == 0) {
        return false;
    }
    const unique_fd ruleset = create_ruleset(version);
    if (!ruleset) {
        return false;
    }
    for (const file_rule& rule : rules) {
        if (!add_rule(ruleset.get(), version, rule) && rule.needed) {
            return false;
        }
    }
    return syscall(SYS_landlock_restrict_self, ruleset.get(), 0) == 0;
}

} // namespace platform
