#include "platform/standalone/confine/kept_rights.h"

#include <fcntl.h>
#include <initializer_list>
#include <sys/mman.h>
#include <sys/syscall.h>

namespace platform {

namespace {

using conditions = std::vector<call_condition>;

argument_condition is(unsigned argument, int value)
{
    return {argument, argument_test::IS, static_cast<uint32_t>(value)};
}

argument_condition is_not(unsigned argument, int value)
{
    return {argument, argument_test::IS_NOT, static_cast<uint32_t>(value)};
}

argument_condition is_number(unsigned argument, uint32_t value)
{
    return {argument, argument_test::IS_MULTIPLE, value, value, 1};
}

argument_condition is_name(unsigned argument, const kept_places& places)
{
    return {argument, argument_test::IS_MULTIPLE, static_cast<uint32_t>(places.first),
            static_cast<uint32_t>(places.last), static_cast<uint32_t>(places.slot)};
}

condition_list none_of(unsigned argument, const std::vector<int>& descriptors)
{
    condition_list all;
    for (const int descriptor : descriptors) {
        all.push_back(is_not(argument, descriptor));
    }
    return all;
}

condition_list both(condition_list first, const condition_list& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// --- names --------------------------------------------------------------------------------------

void add_forbidden(conditions* all, std::initializer_list<long> calls)
{
    for (const long call : calls) {
        all->push_back({call, {}});
    }
}

void add_files(conditions* all, const std::vector<kept_places>& folders)
{
    call_condition remove = {SYS_unlinkat, {}};
    std::vector<condition_list> both_names;
    for (const kept_places& places : folders) {
        for (const int folder : places.descriptors) {
            remove.alternatives.push_back({is(0, folder), is_name(1, places), is(2, 0)});
            both_names.push_back(
                {is(0, folder), is_name(1, places), is(2, folder), is_name(3, places)});
        }
    }
    all->push_back(remove);
    all->push_back({SYS_renameat2, both_names});
    all->push_back({SYS_linkat, both_names});
#ifdef SYS_renameat
    all->push_back({SYS_renameat, both_names});
#endif
#ifdef SYS_unlink
    add_forbidden(all, {SYS_unlink, SYS_rename, SYS_rmdir, SYS_link, SYS_mkdir});
#endif
    add_forbidden(all, {SYS_mkdirat});
}

// The copies of the names stay where they are.
void add_memory(conditions* all, uint32_t end)
{
    const argument_condition old_place = {0, argument_test::IS_AT_LEAST, end};
    const argument_condition new_place = {4, argument_test::IS_AT_LEAST, end};
    for (const long call : {SYS_munmap, SYS_mprotect, SYS_madvise}) {
        all->push_back({call, {{old_place}}});
    }
    all->push_back(
        {SYS_mremap,
         {{old_place, {3, argument_test::LACKS_BITS, MREMAP_FIXED}}, {old_place, new_place}}});
}

// --- descriptors --------------------------------------------------------------------------------

// The same open file must not get a second number, which no condition would know.
std::vector<int> single_descriptors(const kept_rights& rights)
{
    std::vector<int> all;
    for (const int descriptor : {rights.registry, rights.manager}) {
        if (descriptor >= 0) {
            all.push_back(descriptor);
        }
    }
    return all;
}

// A number of these always stands for the same open file.
std::vector<int> fixed_descriptors(const kept_rights& rights)
{
    std::vector<int> all = single_descriptors(rights);
    for (const kept_places& places : rights.folders) {
        all.insert(all.end(), places.descriptors.begin(), places.descriptors.end());
    }
    return all;
}

void add_descriptors(conditions* all, const kept_rights& rights)
{
    const std::vector<int> fixed = fixed_descriptors(rights);
    const std::vector<int> single = single_descriptors(rights);
    all->push_back({SYS_close, {none_of(0, fixed)}});
    for (const long call : {
#ifdef SYS_dup2
             long{SYS_dup2},
#endif
             long{SYS_dup3}}) {
        all->push_back({call, {both(none_of(0, single), none_of(1, fixed))}});
    }
    all->push_back({SYS_dup, {none_of(0, single)}});
    call_condition control = {SYS_fcntl, {none_of(0, single)}};
    for (const int command : {F_GETFD, F_GETFL, F_OFD_GETLK}) {
        control.alternatives.push_back({is(1, command)});
    }
    all->push_back(control);
    add_forbidden(all, {
#ifdef SYS_close_range
                           SYS_close_range,
#endif
                           SYS_recvmsg, SYS_recvmmsg});
}

// Messages go to connected processes only, and nothing but texts to the manager.
void add_messages(conditions* all, int manager)
{
    all->push_back({SYS_sendto, {{{4, argument_test::IS_ZERO}}}});
    if (manager >= 0) {
        all->push_back({SYS_sendmsg, {{is_not(0, manager)}}});
    }
}

// The registry is written in one place only, and locked no further.
void add_registry(conditions* all, const kept_rights& rights)
{
    const int file = rights.registry;
    for (const long call : {SYS_write, SYS_writev, SYS_pwritev, SYS_pwritev2, SYS_ftruncate,
                            SYS_fallocate, SYS_flock, SYS_fchmod, SYS_fchown}) {
        all->push_back({call, {{is_not(0, file)}}});
    }
    all->push_back({SYS_copy_file_range, {{is_not(2, file)}}});
    call_condition write_record = {SYS_pwrite64, {{is_not(0, file)}}};
    if (rights.registry_offset != 0) {
        write_record.alternatives.push_back(
            {is_number(2, rights.registry_size), is_number(3, rights.registry_offset)});
    }
    all->push_back(write_record);
}

// Not the registry, and not in the place of the names.
void add_mappings(conditions* all, const kept_rights& rights)
{
    condition_list any_place = {{3, argument_test::LACKS_BITS, MAP_FIXED}};
    condition_list elsewhere = {
        {0, argument_test::IS_AT_LEAST, static_cast<uint32_t>(rights.end_of_names)}};
    if (rights.registry >= 0) {
        any_place.push_back(is_not(4, rights.registry));
        elsewhere.push_back(is_not(4, rights.registry));
    }
    all->push_back({SYS_mmap, {any_place, elsewhere}});
}

} // namespace

std::vector<call_condition> conditions_of(const kept_rights& rights)
{
    conditions all;
    // The calls of busy workers first.
    add_messages(&all, rights.manager);
    if (rights.registry >= 0) {
        add_registry(&all, rights);
    }
    add_mappings(&all, rights);
    add_descriptors(&all, rights);
    if (rights.end_of_names != 0) {
        add_memory(&all, static_cast<uint32_t>(rights.end_of_names));
    }
    add_files(&all, rights.folders);
    return all;
}

bool keep_own_files(const std::vector<kept_folder>& folders, kept_rights rights)
{
    rights.folders = keep_names(folders);
    rights.end_of_names = end_of_kept_names();
    // Without the names nothing could be removed any more, not even the worker's own socket.
    return !rights.folders.empty() && restrict_arguments(conditions_of(rights));
}

} // namespace platform
