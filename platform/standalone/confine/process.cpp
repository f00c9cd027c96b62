#include <array>
#include <climits>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/confinement.h"
#include "platform/standalone/cnb/cgroup_memory.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/cnb/memory_bound.h"
#include "platform/standalone/cnb/small_file.h"
#include "platform/standalone/confine/calls.h"
#include "platform/standalone/confine/files.h"
#include "platform/standalone/confine/memory.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/settings.h"

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

item_places present_places(const open_item& opened)
{
    item_places places;
    places.picture = opened.picture.get();
    places.metadata_folder = opened.folder.get();
    places.domain_folder = cnb_domain_folder();
    places.core_folder = present_core_folder();
    places.memory_groups = memory_group_folders();
    if (mode_serves()) {
        places.socket_folder = socket_path().substr(0, socket_path().rfind('/') + 1);
    }
    return places;
}

bool manager_has_abstract_socket()
{
    const char* address = getenv("NOTIFY_SOCKET");
    return address != nullptr && address[0] == '@';
}

} // namespace

} // namespace platform

using namespace platform;

void confine_process()
{
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (sanitized_build) {
        return;
    }
    limit_address_space(address_space_limit(present_memory_need()));
    if (opened_item() != nullptr) {
        restrict_files(file_rules(present_places(*opened_item())), manager_has_abstract_socket());
    }
    restrict_calls(); // last, because it forbids the calls that the others need
    start_memory_bound();
}
