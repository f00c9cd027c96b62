#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <vector>

#include "platform/cnb.h"
#include "platform/confinement.h"
#include "platform/settings.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/cnb/default_buffer.h"
#include "platform/standalone/cnb/file_size_bound.h"
#include "platform/standalone/cnb/memory_bound.h"
#include "platform/standalone/confine/calls.h"
#include "platform/standalone/confine/capabilities.h"
#include "platform/standalone/confine/files.h"
#include "platform/standalone/confine/limits.h"
#include "platform/standalone/confine/memory.h"
#include "platform/standalone/confine/own_files.h"
#include "platform/standalone/confine/places.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/report/document.h"
#include "platform/standalone/report/status.h"

namespace platform {

namespace {

// NOT_WANTED: it would hinder what the worker was asked to do, or the kernel does not have it and
// another measure does the same.
enum class outcome { IN_FORCE, REFUSED, NOT_WANTED };

struct measure {
    const char* name; // in the status document
    outcome (*take)();
};

// What several measures depend on.
struct circumstances {
    bool no_new_privileges = false;
    bool foreign_files = false;
    int landlock = 0;             // version in force
    const char* reason = nullptr; // of a refusal, when the error number does not say it
};
circumstances present;

outcome taken(bool done)
{
    return done ? outcome::IN_FORCE : outcome::REFUSED;
}

outcome give_up_new_privileges()
{
    present.no_new_privileges = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
    return taken(present.no_new_privileges);
}

outcome bound_address_space()
{
    return taken(limit_address_space(address_space_limit(present_memory_need())));
}

outcome bound_file_sizes()
{
    if (writes_foreign_files() || from_switches.core_files) {
        return outcome::NOT_WANTED;
    }
    return taken(start_file_size_bound(cnb_largest_total(), largest_own_file()));
}

outcome give_up_processes()
{
    return vexa_daemon ? outcome::NOT_WANTED : taken(forbid_processes());
}

outcome give_up_core_files()
{
    return from_switches.core_files ? outcome::NOT_WANTED : taken(forbid_core_files());
}

outcome give_up_inherited_descriptors()
{
    return taken(close_inherited_descriptors());
}

// Where the kernel does not know how, the filter for system calls refuses the same.
outcome protect_memory()
{
    const int result = forbid_new_code();
    return result == 0 ? outcome::NOT_WANTED : taken(result > 0);
}

outcome bound_files()
{
    const open_item* opened = opened_item();
    if (opened == nullptr) {
        return outcome::NOT_WANTED;
    }
    take_own_places();
    present.foreign_files = has_foreign_files(*opened);
    const int version = landlock_version();
    const bool done = restrict_files(file_rules(present_places(*opened, from_switches.core_files)));
    present.landlock = done ? version : 0;
    return taken(done);
}

outcome give_up_capabilities()
{
    const bool done = drop_capabilities(
        {.foreign_files = present.foreign_files, .filters = !present.no_new_privileges});
    if (done && present.foreign_files) {
        present.reason = "the picture or its metadata belongs to another user";
    }
    return taken(done && !present.foreign_files && present.no_new_privileges);
}

outcome bound_own_files()
{
    return opened_item() == nullptr ? outcome::NOT_WANTED : taken(restrict_to_own_files());
}

outcome bound_calls()
{
    return taken(restrict_calls({.daemon = vexa_daemon, .foreign_files = present.foreign_files}));
}

// In this order: each needs something that a later one gives up.
constexpr measure measures[] = {
    {"no new privileges", give_up_new_privileges},
    {"address space", bound_address_space},
    {"file sizes", bound_file_sizes},
    {"no processes", give_up_processes},
    {"no core files", give_up_core_files},
    {"no inherited descriptors", give_up_inherited_descriptors},
    {"memory protection", protect_memory},
    {"files", bound_files},
    {"no capabilities", give_up_capabilities},
    {"own files", bound_own_files},
    {"system calls", bound_calls},
};

struct refusal {
    const char* measure = nullptr; // the first that was refused; null: none
    std::string reason;
};

std::vector<shown_measure> in_force;

// A process with a sanitizer can only give up new privileges.
outcome take(const measure& one)
{
    if (sanitized_build && one.take != give_up_new_privileges) {
        errno = EOPNOTSUPP;
        return outcome::REFUSED;
    }
    return one.take();
}

refusal take_measures()
{
    refusal first;
    present = {};
    in_force.clear();
    for (const measure& one : measures) {
        errno = 0;
        present.reason = nullptr;
        const outcome result = take(one);
        in_force.push_back({one.name, result == outcome::IN_FORCE});
        if (result == outcome::REFUSED && first.measure == nullptr) {
            first = {one.name, present.reason != nullptr ? present.reason : error_text(errno)};
        }
    }
    return first;
}

// Null before the measures were taken.
shown_measure* find_measure(const char* name)
{
    const auto found =
        std::find_if(in_force.begin(), in_force.end(),
                     [name](const shown_measure& each) { return strcmp(each.name, name) == 0; });
    return found != in_force.end() ? &*found : nullptr;
}

void show_measures()
{
    set_document_confinement(in_force, present.landlock);
}

} // namespace

} // namespace platform

using namespace platform;

int confine_process()
{
    const refusal first = take_measures();
    show_measures();
    if (from_switches.require_confinement && first.measure != nullptr) {
        error_line("Cannot confine the worker", first.measure, first.reason);
        return -1;
    }
    if (!sanitized_build) {
        start_memory_bound();
    }
    return 0;
}

void confine_daemon()
{
    const shown_measure* calls = find_measure("system calls");
    if (calls == nullptr || !calls->in_force || !restrict_calls_of_daemon()) {
        return;
    }
    find_measure("no processes")->in_force = forbid_processes();
    show_measures();
}
