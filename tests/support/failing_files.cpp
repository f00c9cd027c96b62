#include "tests/support/failing_files.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace failing_files {

namespace {

int armed_call = 0;
fate armed_fate = fate::FAIL;
int armed_error = 0;
std::vector<std::string> made_calls;

bool due()
{
    return armed_call != 0 && static_cast<int>(made_calls.size()) == armed_call;
}

void die_when(fate moment)
{
    if (due() && armed_fate == moment) {
        kill(getpid(), SIGKILL);
    }
}

template <typename result, typename call>
result counted(const char* name, const call& system_call)
{
    made_calls.emplace_back(name);
    die_when(fate::DIE_BEFORE);
    if (due() && armed_fate == fate::FAIL) {
        errno = armed_error;
        return -1;
    }
    const result value = system_call(platform::system_file_operations);
    die_when(fate::DIE_AFTER);
    return value;
}

int open_at(int folder, const char* name, int flags, mode_t mode)
{
    return counted<int>(
        "open_at", [&](const auto& system) { return system.open_at(folder, name, flags, mode); });
}

ssize_t write(int fd, const void* data, size_t size)
{
    const size_t part = armed_fate == fate::HALF_WRITES && size > 1 ? 1 : size;
    return counted<ssize_t>("write",
                            [&](const auto& system) { return system.write(fd, data, part); });
}

int truncate(int fd, off_t size)
{
    return counted<int>("truncate", [&](const auto& system) { return system.truncate(fd, size); });
}

int change_mode(int fd, mode_t mode)
{
    return counted<int>("change_mode",
                        [&](const auto& system) { return system.change_mode(fd, mode); });
}

int change_owner(int fd, uid_t user, gid_t group)
{
    return counted<int>("change_owner",
                        [&](const auto& system) { return system.change_owner(fd, user, group); });
}

int sync(int fd)
{
    return counted<int>("sync", [&](const auto& system) { return system.sync(fd); });
}

int rename_at(int folder, const char* from, const char* to)
{
    return counted<int>("rename_at",
                        [&](const auto& system) { return system.rename_at(folder, from, to); });
}

int rename_new_at(int folder, const char* from, const char* to)
{
    return counted<int>("rename_new_at",
                        [&](const auto& system) { return system.rename_new_at(folder, from, to); });
}

int unlink_at(int folder, const char* name)
{
    return counted<int>("unlink_at",
                        [&](const auto& system) { return system.unlink_at(folder, name); });
}

} // namespace

void arm(int nth, fate what, int error_number)
{
    armed_call = nth;
    armed_fate = what;
    armed_error = error_number;
    made_calls.clear();
}

const platform::file_operations operations = {
    .open_at = open_at,
    .write = write,
    .truncate = truncate,
    .change_mode = change_mode,
    .change_owner = change_owner,
    .sync = sync,
    .rename_at = rename_at,
    .rename_new_at = rename_new_at,
    .unlink_at = unlink_at,
};

const std::vector<std::string>& calls()
{
    return made_calls;
}

} // namespace failing_files
