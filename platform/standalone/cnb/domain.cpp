#include "platform/standalone/cnb/domain.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <unistd.h>

#include "platform/cnb.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/cnb/domain_folder.h"
#include "platform/standalone/cnb/file_size_bound.h"
#include "platform/standalone/cnb/memory_bound.h"
#include "platform/standalone/cnb/memory_room.h"

namespace platform {

bool (*cnb_reserve_pump)() = nullptr;

cnb_machine the_machine;

namespace {

constexpr size_t max_name = 64;

struct joined_domain {
    domain_folder place;
    buffer_registry registry;
    memory_room room;
    uint64_t reserve; // bytes of memory that are left for others
    uint64_t limit;
};

// Never destroyed, because exit handlers may still use it.
struct membership {
    std::string name = default_cnb_domain;
    uint64_t limit = default_cnb_limit;
    std::unique_ptr<joined_domain> joined;
};

membership& state()
{
    static membership& instance = *new membership;
    return instance;
}

int refuse(std::string_view what, std::string_view reason)
{
    error_line("cannot use the CNB domain", what, reason);
    return -1;
}

// A domain never has that many live buffers: somebody locks records that are not theirs, and would
// keep every later worker waiting.
bool begin_new_registry(joined_domain* domain)
{
    const int folder = domain->place.folder.get();
    if (renameat(folder, registry_name, folder, blocked_registry_name) != 0) {
        return false;
    }
    error_line("CNB registry", domain->place.path + '/' + registry_name,
               "every number is locked; the domain begins a new one");
    return domain->registry.open(folder) == 0;
}

} // namespace

uint64_t largest_buffer()
{
    return (uint64_t{1} << 32) - static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

uint64_t domain_limit()
{
    return state().joined ? state().joined->limit : 0;
}

claim_result claim_in_domain(uint64_t bytes, uint32_t* number, std::string* reason)
{
    joined_domain* domain = state().joined.get();
    if (domain == nullptr) {
        *reason = "the domain cannot be joined";
        return claim_result::FAILED;
    }
    const claim_result result = domain->registry.claim(bytes, domain->limit);
    if (result == claim_result::FAILED) {
        *reason = "registry in '" + domain->place.path +
                  "': " + (errno == EPROTO ? "not a registry of this version" : error_text(errno));
    } else if (result == claim_result::TAKEN) {
        *number = domain->registry.number();
    }
    return result;
}

registry_record record_in_domain()
{
    return state().joined ? state().joined->registry.own_record() : registry_record{-1, 0, 0};
}

bool reserve_in_domain()
{
    joined_domain* domain = state().joined.get();
    if (domain == nullptr) {
        return false;
    }
    claim_result result = domain->registry.reserve_number();
    if (result == claim_result::NO_ROOM && begin_new_registry(domain)) {
        result = domain->registry.reserve_number();
    }
    return result == claim_result::TAKEN;
}

void release_in_domain()
{
    if (state().joined) {
        state().joined->registry.release();
    }
}

void note_domain_owner()
{
    if (state().joined) {
        state().joined->registry.note_owner();
    }
}

uint64_t memory_for_buffers()
{
    if (!state().joined) {
        return 0;
    }
    const uint64_t available = state().joined->room.available();
    const uint64_t reserve = state().joined->reserve;
    return available > reserve ? available - reserve : 0;
}

memory_shares memory_beside_buffers()
{
    if (!state().joined) {
        return {no_memory_limit, 0};
    }
    const uint64_t available = state().joined->room.available();
    const uint64_t reserve = state().joined->reserve;
    return {available - std::min(available, reserve / 2), reserve / 4};
}

void reset_cnb()
{
    reset_memory_bound();
    reset_file_size_bound();
    cnb_leave_domain();
    cnb_default_buffer_level = -1;
    cnb_static_alloc = 0;
    cnb_total = 0;
    cnb_reserve_pump = nullptr;
    state().name = default_cnb_domain;
    state().limit = default_cnb_limit;
    the_machine = {};
}

bool cnb_domain_name_valid(std::string_view name)
{
    return !name.empty() && name.size() <= max_name && name.front() != '.' &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

void cnb_set_domain(const char* name, uint64_t limit)
{
    if (!state().joined) {
        state().name = name;
        state().limit = limit;
    }
}

int cnb_join_domain()
{
    membership& member = state();
    if (member.joined) {
        return 0;
    }
    if (!cnb_domain_name_valid(member.name)) {
        return refuse(member.name, "a name has 1 to 64 bytes, no '/', and no '.' at its beginning");
    }
    domain_folder place = open_domain_folder(member.name);
    if (!place.folder) {
        return refuse(place.path, place.reason);
    }
    // Programs that clean up temporary folders skip folders that are locked.
    flock(place.folder.get(), LOCK_SH | LOCK_NB);
    buffer_registry registry;
    if (registry.open(place.folder.get()) != 0) {
        const std::string path = place.path + "/registry";
        return refuse(path, errno == EPROTO ? "not a file" : error_text(errno));
    }
    // Here, where a failure can be reported, and while the process may still create one.
    if (create_default_buffer() != 0) {
        return refuse(place.path, "no memory files: " + error_text(errno));
    }
    memory_room room(the_machine.root);
    const uint64_t total = room.total();
    const uint64_t limit = member.limit != default_cnb_limit ? member.limit : total / 2;
    member.joined = std::make_unique<joined_domain>(joined_domain{
        std::move(place), std::move(registry), std::move(room), memory_reserve(total), limit});
    return 0;
}

cnb_domain_view cnb_view_domain()
{
    return {state().name.c_str(), domain_limit(), image_cnb_buffer, default_buffer_size()};
}

std::string cnb_domain_folder()
{
    return state().joined ? state().joined->place.path : std::string();
}

void cnb_leave_domain()
{
    cnb_default_buffer_drop();
    state().joined.reset();
}

} // namespace platform
