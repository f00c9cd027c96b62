#include "platform/confinement.h"

#include <array>
#include <climits>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/standalone/cnb/cgroup_memory.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/cnb/memory_bound.h"
#include "platform/standalone/cnb/small_file.h"
#include "platform/standalone/item/confinement_calls.h"
#include "platform/standalone/item/confinement_files.h"
#include "platform/standalone/item/confinement_memory.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/item_state.h"
#include "platform/standalone/item/sanitized_build.h"
#include "platform/standalone/item/settings.h"

namespace item {

namespace {

std::string working_folder()
{
    std::array<char, PATH_MAX> folder = {};
    return getcwd(folder.data(), folder.size()) != nullptr ? folder.data() : "";
}

std::string present_core_folder()
{
    std::string pattern = platform::read_small_file("/proc/sys/kernel/core_pattern");
    pattern.resize(pattern.find_last_not_of('\n') + 1);
    rlimit limit = {};
    getrlimit(RLIMIT_CORE, &limit);
    return core_folder(pattern, limit.rlim_cur, working_folder());
}

std::vector<std::string> memory_group_folders()
{
    std::vector<std::string> folders;
    for (platform::memory_cgroup& group :
         platform::find_memory_cgroups(platform::read_small_file("/proc/self/cgroup"),
                                       platform::read_small_file("/proc/self/mountinfo"))) {
        folders.push_back(std::move(group.folder));
    }
    return folders;
}

item_places present_places(const platform::open_item& opened)
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

} // namespace item

void confine_process()
{
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (item::sanitized_build) {
        return;
    }
    item::limit_address_space(item::address_space_limit(item::present_memory_need()));
    if (item::opened_item() != nullptr) {
        item::restrict_files(item::file_rules(item::present_places(*item::opened_item())),
                             item::manager_has_abstract_socket());
    }
    item::restrict_calls(); // the last of the three: it refuses the calls of the others
    platform::start_memory_bound();
}
