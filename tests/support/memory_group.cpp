#include "tests/support/memory_group.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/standalone/cnb/small_file.h"

namespace {

struct group_files {
    const char* limit;
    // The file of the swap limit, and the value that allows no swap; null: the limit of memory.
    std::array<const char*, 2> swap;
    const char* events;
};

const group_files& files_of(int version)
{
    static constexpr group_files files[] = {
        {"/memory.limit_in_bytes",
         {"/memory.memsw.limit_in_bytes", nullptr},
         "/memory.oom_control"},
        {"/memory.max", {"/memory.swap.max", "0"}, "/memory.events"},
    };
    return files[version - 1];
}

bool write_text(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool written =
        fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error_number = errno;
    if (fd >= 0) {
        close(fd);
    }
    errno = error_number;
    return written;
}

std::vector<platform::memory_cgroup> own_groups()
{
    return platform::find_memory_cgroups(platform::read_small_file("/proc/self/cgroup"),
                                         platform::read_small_file("/proc/self/mountinfo"));
}

} // namespace

memory_group::memory_group(uint64_t bytes)
{
    reason_ = "there is no memory controller";
    for (const platform::memory_cgroup& parent : own_groups()) {
        if (make_below(parent, bytes)) {
            return;
        }
    }
}

memory_group::memory_group(uint64_t bytes, const memory_group& parent)
{
    if (parent.group_.version == 2) {
        write_text(parent.group_.folder + "/cgroup.subtree_control", "+memory");
    }
    make_below(parent.group_, bytes);
}

bool memory_group::make_below(const platform::memory_cgroup& parent, uint64_t bytes)
{
    static int count = 0;
    const std::string folder = parent.folder + "/stillimage-test-" + std::to_string(getpid()) +
                               "-" + std::to_string(++count);
    if (mkdir(folder.c_str(), 0700) != 0) {
        reason_ = "no control group can be made: " + folder + ": " + strerror(errno);
        return false;
    }
    const group_files& files = files_of(parent.version);
    if (!write_text(folder + files.limit, std::to_string(bytes))) {
        reason_ = "no limit can be set: " + folder + files.limit + ": " + strerror(errno);
        rmdir(folder.c_str());
        return false;
    }
    write_text(folder + files.swap[0],
               files.swap[1] != nullptr ? files.swap[1] : std::to_string(bytes));
    group_ = {folder, parent.version};
    reason_.clear();
    return true;
}

memory_group::~memory_group()
{
    // A process that has just ended may still be counted as a member.
    for (int tries = 0; !group_.folder.empty() && tries < 200; ++tries) {
        if (rmdir(group_.folder.c_str()) == 0 || errno != EBUSY) {
            return;
        }
        usleep(10'000);
    }
}

uint64_t memory_group::kills() const
{
    const std::string events =
        platform::read_small_file(group_.folder + files_of(group_.version).events);
    return platform::number_of_line(events, "oom_kill ", 0);
}
