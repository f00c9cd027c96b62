// Socket, command line, status and document of the scripted platform.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/clients.h"
#include "platform/confinement.h"
#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/settings.h"
#include "platform/start_up.h"
#include "platform/status.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/scripted_state.h"

using scripted::log;
using scripted::plan;

namespace {

char** arguments = nullptr;

} // namespace

// --- comm ---------------------------------------------------------------------------------------

void comm_socket_v4_server_from_client_readable(comm_socket_v4_server* /*server*/,
                                                uint64_t deadline_us)
{
    log.wait_deadlines.push_back(deadline_us);
    if (deadline_us > scripted::clock_us) {
        scripted::clock_us = deadline_us;
    }
}

int comm_socket_v4_reopen_server(comm_socket_v4_server* /*server*/)
{
    log.calls.emplace_back("comm_socket_v4_reopen_server");
    return 0;
}

int idle_vexa_server_comm()
{
    ++log.idle_rounds;
    if (scripted::counts_out(plan.die_after_idle)) {
        DIE4 = DIE4 + 1;
    }
    if (scripted::counts_out(plan.exit_after_idle)) {
        vexa_should_exit = true;
    }
    if (plan.on_idle) {
        plan.on_idle();
    }
    return plan.comm_work;
}

int idle_vexa_client_contexts()
{
    if (plan.on_client_idle) {
        plan.on_client_idle();
    }
    return plan.client_work;
}

void close_vexa_client_contexts()
{
    log.calls.emplace_back("close_vexa_client_contexts");
}

void vexa_idle_housekeeping()
{
    log.calls.emplace_back("vexa_idle_housekeeping");
}

// --- item: command line -------------------------------------------------------------------------

void open_missing_standard_descriptors()
{
    log.calls.emplace_back("open_missing_standard_descriptors");
}

int vexa_init_argv(int argc, char** argv)
{
    arguments = argc > 0 ? argv + 1 : nullptr;
    return plan.init_argv_fails || argc < 1 ? -1 : 0;
}

char* vexa_next_arg()
{
    return *arguments == nullptr ? nullptr : *arguments++;
}

int vexa_argv_is_switch(char** argument)
{
    if (**argument != '-') {
        return 0;
    }
    while (**argument == '-') {
        ++*argument;
    }
    return 1;
}

int vexa_argv_std_handle_switch(char* word)
{
    const std::pair<const char*, bool*> flags[] = {
        {"oneshot", &vexa_oneshot},
        {"daemon", &vexa_daemon},
        {"identify-only", &vexa_identify_only},
        {"create-meta", &vexa_create_meta},
        {"temp-clean-only", &vexa_temp_clean_only},
        {"stderr-to-log", &vexa_stderr_to_log},
        {"no-autoshutdown", &vexa_no_autoshutdown},
    };
    for (const auto& [name, flag] : flags) {
        if (strcmp(word, name) == 0) {
            *flag = true;
            return 1;
        }
    }
    if (strcmp(word, "file") == 0) {
        const char* path = vexa_next_arg();
        vexa_set_string(&vexa_file, path);
        return path != nullptr ? 1 : -1;
    }
    return strcmp(word, "bad-value") == 0 ? -1 : 0;
}

void vexa_std_help()
{
    fputs("(standard help)\n", stderr);
}

int vexa_standard_to_derived_params()
{
    if (plan.derived_params_fail) {
        return -1;
    }
    vexa_set_string(&vexa_file_metadir, plan.no_metadir ? nullptr : "metadir");
    vexa_set_string(&vexa_sock, plan.no_sock ? nullptr : "sock");
    vexa_meta = plan.no_meta ? nullptr : &scripted::the_context;
    vexa_metadata = plan.no_metadata ? nullptr : &scripted::the_list;
    return 0;
}

int vexa_join_cnb_domain()
{
    return plan.join_domain_fails ? -1 : 0;
}

int vexa_redirect_stderr_to_logfile()
{
    log.calls.emplace_back("vexa_redirect_stderr_to_logfile");
    return plan.redirect_fails ? -1 : 0;
}

int confine_process()
{
    log.calls.emplace_back("confine_process");
    return plan.confinement_is_refused ? -1 : 0;
}

void confine_daemon()
{
    log.calls.emplace_back("confine_daemon");
}

int vexa_self_test()
{
    return plan.self_test_fails ? -1 : 0;
}

void vexa_free_all()
{
    log.calls.emplace_back("vexa_free_all");
}

void vexa_set_string(char** variable, const char* text)
{
    char* copy = text != nullptr ? strdup(text) : nullptr;
    free(*variable);
    *variable = copy;
}

int vexa_parse_int_rational(int_rational* ratio, const char* text)
{
    long long numerator = 0;
    long long denominator = 0;
    if (sscanf(text, "%lld:%lld", &numerator, &denominator) != 2) {
        return -1;
    }
    *ratio = {numerator, denominator};
    return 0;
}

int vexa_parse_background_music(const char* text)
{
    return strcmp(text, "on") == 0 ? 1 : 0;
}

// --- item: metadata, status, document -----------------------------------------------------------

void vexa_print_standard_metadata_state()
{
    fputs("(standard metadata state)\n", stderr);
}

void vexa_standard_vars_to_metadata(metadata_v4_metadata_context* /*list*/)
{
    log.calls.emplace_back("vexa_standard_vars_to_metadata");
}

void meta_to_json(metadata_v4_metadata_context* /*list*/)
{
    log.calls.emplace_back("meta_to_json");
}

void vexa_status_write(int percent, const char* text)
{
    log.status.push_back({percent, text});
}

void vexa_ready_write(int state, const char* text)
{
    vexa_ready = true;
    log.ready.push_back({state, text});
}

void (*vexa_on_json_build)(std::map<std::string, json11::Json>&, unsigned long) = nullptr;
void (*vexa_on_metadata_set)(comm_socket_v4_client*, const char*, std::string&) = nullptr;
void (*on_vexa_client_disconnect)(comm_socket_v4_client*) = nullptr;

void my_client_disconnect_handler(comm_socket_v4_client* /*client*/) {}

void item_to_json_common()
{
    log.calls.emplace_back("item_to_json_common");
}

void rebuild_json()
{
    ++log.rebuilds;
}

void json_check_xmit(uint64_t /*now_us*/)
{
    log.calls.emplace_back("json_check_xmit");
}
