#include "tests/support/refused_calls.h"

#include <seccomp.h>
#include <string_view>
#include <sys/prctl.h>

namespace {

bool refuse(scmp_filter_ctx filter, std::string_view name, int error_number)
{
    const uint32_t action = SCMP_ACT_ERRNO(static_cast<uint32_t>(error_number));
    if (name == no_new_privileges_call || name == set_seccomp_call) {
        const auto option = static_cast<scmp_datum_t>(
            name == set_seccomp_call ? PR_SET_SECCOMP : PR_SET_NO_NEW_PRIVS);
        const scmp_arg_cmp comparison = {0, SCMP_CMP_EQ, option, 0};
        return seccomp_rule_add_array(filter, action, SCMP_SYS(prctl), 1, &comparison) == 0;
    }
    return seccomp_rule_add(filter, action, seccomp_syscall_resolve_name(name.data()), 0) == 0;
}

} // namespace

bool refuse_calls(std::initializer_list<const char*> names, int error_number)
{
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ALLOW);
    bool done = filter != nullptr;
    for (const char* name : names) {
        done = done && refuse(filter, name, error_number);
    }
    done = done && seccomp_load(filter) == 0;
    seccomp_release(filter);
    return done;
}

bool refuse_confinement()
{
    return refuse_calls({no_new_privileges_call, set_seccomp_call, "seccomp", "prlimit64",
                         "setrlimit", "landlock_create_ruleset"});
}
