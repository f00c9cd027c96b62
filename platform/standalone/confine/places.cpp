#include "platform/standalone/confine/places.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/settings.h"
#include "platform/standalone/base/folders.h"
#include "platform/standalone/cnb/cgroup_memory.h"
#include "platform/standalone/cnb/small_file.h"
#include "platform/standalone/confine/capabilities.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/metadata/metadata_text.h"
#include "platform/standalone/report/log_file.h"
#include "platform/standalone/report/status.h"

namespace platform {

namespace {

std::string working_folder()
{
    std::array<char, PATH_MAX> folder = {};
    return getcwd(folder.data(), folder.size()) != nullptr ? folder.data() : "";
}

std::string present_core_folder()
{
    std::string pattern = read_small_file("/proc/sys/kernel/core_pattern");
    pattern.resize(pattern.find_last_not_of('\n') + 1);
    rlimit limit = {};
    getrlimit(RLIMIT_CORE, &limit);
    return core_folder(pattern, limit.rlim_cur, working_folder());
}

std::vector<std::string> memory_group_folders()
{
    std::vector<std::string> folders;
    for (memory_cgroup& group : find_memory_cgroups(read_small_file("/proc/self/cgroup"),
                                                    read_small_file("/proc/self/mountinfo"))) {
        folders.push_back(std::move(group.folder));
    }
    return folders;
}

bool is_regular_file(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

bool is_foreign(int folder, const char* name)
{
    struct stat status = {};
    return fstatat(folder, name, &status, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) == 0 &&
           status.st_uid != geteuid();
}

} // namespace

item_places present_places(const open_item& opened, bool core_files)
{
    item_places places;
    places.picture = opened.picture.get();
    places.metadata_folder = opened.folder.get();
    places.memory_groups = memory_group_folders();
    if (core_files) {
        places.core_folder = present_core_folder();
    }
    if (mode_serves()) {
        places.socket_folder = socket_path().substr(0, socket_path().rfind('/') + 1);
    }
    return places;
}

bool has_foreign_files(const open_item& opened)
{
    if (!has_capabilities()) {
        return false;
    }
    const int folder = opened.folder.get();
    const auto names = names_in_folder(folder);
    return is_foreign(folder, "") ||
           std::any_of(names.begin(), names.end(),
                       [folder](const auto& name) { return is_foreign(folder, name.c_str()); }) ||
           !readable_without_capabilities(opened.picture.get());
}

uint64_t largest_own_file()
{
    return std::max<uint64_t>(max_metadata_file, log_limit);
}

bool writes_foreign_files()
{
    return (!vexa_stderr_to_log && is_regular_file(STDERR_FILENO)) || status_channel_is_file();
}

} // namespace platform
