#include "platform/standalone/confine/capabilities.h"

#include <cstdint>
#include <fcntl.h>
#include <linux/capability.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

constexpr unsigned halves = _LINUX_CAPABILITY_U32S_3;

struct capability_sets {
    __user_cap_data_struct half[halves];
};

bool read_sets(capability_sets* sets)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capget, &header, sets->half) == 0;
}

bool write_sets(const capability_sets& sets)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(SYS_capset, &header, sets.half) == 0;
}

bool is_empty(const capability_sets& sets)
{
    uint32_t any = 0;
    for (const __user_cap_data_struct& half : sets.half) {
        any |= half.effective | half.permitted | half.inheritable;
    }
    return any == 0;
}

uint64_t bit(unsigned capability)
{
    return uint64_t{1} << capability;
}

uint64_t needed_capabilities(const capability_needs& needs)
{
    uint64_t kept = 0;
    if (needs.foreign_files) {
        kept |= bit(CAP_DAC_OVERRIDE) | bit(CAP_CHOWN) | bit(CAP_FOWNER);
    }
    if (needs.filters) {
        kept |= bit(CAP_SYS_ADMIN);
    }
    return kept;
}

} // namespace

bool has_capabilities()
{
    capability_sets sets = {};
    return read_sets(&sets) && (sets.half[0].effective | sets.half[1].effective) != 0;
}

bool readable_without_capabilities(int fd)
{
    capability_sets sets = {};
    if (!read_sets(&sets)) {
        return false;
    }
    capability_sets none = sets;
    none.half[0].effective = 0;
    none.half[1].effective = 0;
    if (!write_sets(none)) {
        return false;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    const unique_fd again(open_file(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    return write_sets(sets) && again;
}

bool drop_capabilities(const capability_needs& needs)
{
    const uint64_t kept = needed_capabilities(needs);
    capability_sets sets = {};
    if (!read_sets(&sets)) {
        return false;
    }
    if (is_empty(sets)) {
        return true; // a service manager may refuse the call that would change nothing
    }
    for (unsigned i = 0; i < halves; ++i) {
        const auto mask = static_cast<uint32_t>(kept >> (32 * i));
        sets.half[i].permitted &= mask;
        sets.half[i].effective &= mask;
        sets.half[i].inheritable = 0;
    }
    return write_sets(sets);
}

} // namespace platform
