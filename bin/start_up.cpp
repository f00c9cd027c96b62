// Start-up: everything before the picture is examined. Every failure but that of the self-test ends
// the process with status 1.
#include "platform/start_up.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "bin/invariant.h"
#include "bin/quickidle.h"
#include "bin/serve/client_context.h"
#include "bin/serve/status_json.h"
#include "bin/serve/video_reference.h"
#include "bin/vexa_stillimage.h"
#include "platform/clients.h"
#include "platform/cnb.h"
#include "platform/confinement.h"
#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/settings.h"
#include "wire/utf8.h"

namespace {

constexpr int max_signals = 19; // with one more the process is taken to be stuck

extern "C" void count_termination(int /*signal*/)
{
    if (DIE4.fetch_add(1) + 1 > max_signals) {
        abort();
    }
}

int fail(const char* message)
{
    fputs(message, stderr);
    return EXIT_FAILURE;
}

int fail_with_help()
{
    vexa_std_help();
    fputs(" --oneshot\n", stderr);
    fputs(" --slow-decode\n", stderr);
    return EXIT_FAILURE;
}

// The program's own switches; `word` is not one of the platform's.
int take_own_switch(const char* word)
{
    if (strcmp(word, "d-merged-s") == 0) {
        return go_on;
    }
    if (strcmp(word, "slow-decode") == 0) {
        slow_decode = true;
        return go_on;
    }
    // Withdrawn, but still accepted, so that old host configurations start.
    if (strcmp(word, "d-merged") == 0) {
        fputs("d-merged is no longer supported. rendering mode removed.\n", stderr);
        return go_on;
    }
    if (strcmp(word, "d-all-scanlines") == 0) {
        fputs("d-all-scanlines is no longer supported. rendering mode removed.\n", stderr);
        return go_on;
    }
    if (strcmp(word, "h") != 0 && strcmp(word, "help") != 0) {
        fprintf(stderr, "Unknown switch '%s'\n", wire::escape_controls(word).c_str());
    }
    return fail_with_help();
}

int take_argument(char* argument)
{
    char* word = argument;
    if (vexa_argv_is_switch(&word) == 0) {
        fprintf(stderr, "Non-switch argument '%s'\n", wire::escape_controls(argument).c_str());
        return EXIT_FAILURE;
    }
    const int taken = vexa_argv_std_handle_switch(word);
    if (taken < 0) {
        return fail_with_help();
    }
    return taken > 0 ? go_on : take_own_switch(word);
}

int take_arguments()
{
    for (char* argument = vexa_next_arg(); argument != nullptr; argument = vexa_next_arg()) {
        const int status = take_argument(argument);
        if (status != go_on) {
            return status;
        }
    }
    return go_on;
}

int derive_item()
{
    if (vexa_file == nullptr) {
        fputs("File to play not specified. Use --file parameter\n", stderr);
        return fail_with_help();
    }
    if (vexa_standard_to_derived_params() != 0) {
        return fail("Failed to obtain derived params\n");
    }
    if (vexa_join_cnb_domain() != 0) {
        return fail("Failed to join CNB domain\n");
    }
    return go_on;
}

int check_derived_item()
{
    if (vexa_file_metadir == nullptr) {
        return fail("Library failed to derive metadata dir\n");
    }
    if (vexa_sock == nullptr) {
        return fail("Library failed to make socket path or accept a path\n");
    }
    if (vexa_meta == nullptr) {
        return fail("No meta object\n");
    }
    if (vexa_metadata == nullptr) {
        return fail("No metadata object\n");
    }
    return go_on;
}

void register_callbacks()
{
    vexa_client_contexts.new_client_context = my_new_client_context;
    vexa_client_contexts.new_video_reference = stillimage_new_video_reference;
    on_vexa_client_disconnect = my_client_disconnect_handler;
    vexa_on_metadata_set = my_on_metadata_set;
    vexa_on_json_build = my_custom_json_build;
}

void print_settings()
{
    fputs("Media item setting:\n", stderr);
    fprintf(stderr, "   File: %s\n", wire::escape_controls(vexa_file).c_str());
    fprintf(stderr, "   Meta: %s\n", wire::escape_controls(vexa_file_metadir).c_str());
    fprintf(stderr, "   Sock: %s\n", wire::escape_controls(vexa_sock).c_str());
}

int prepare_services()
{
    if (vexa_stderr_to_log && vexa_redirect_stderr_to_logfile() != 0) {
        return fail("Failed to redirect stderr\n");
    }
    fprintf(stderr, "bg=%d\n", vexa_background_music);
    srand(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(time(nullptr)));
    if (vexa_self_test() != 0) {
        fputs("Self-test failed [VEXA]\n", stderr);
    }
    cnb_alloc_init();
    register_callbacks();
    print_settings();
    return go_on;
}

} // namespace

void ignore_signals_of_writes()
{
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}

void install_termination_handler()
{
    struct sigaction action = {};
    action.sa_handler = count_termination;
    // Interrupted system calls go on; what reads the picture retries by itself, too.
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGTERM, SIGQUIT, SIGINT}) {
        sigaction(signal, &action, nullptr);
    }
}

int start_up(int argc, char** argv)
{
    cnb_default_buffer_level = 0;
    vexa_auto_socket_create = true;
    if (vexa_init_argv(argc, argv) != 0) {
        return EXIT_FAILURE;
    }
    for (int (*const stage)() :
         {take_arguments, derive_item, check_derived_item, prepare_services}) {
        const int status = stage();
        if (status != go_on) {
            return status;
        }
    }
    if (vexa_temp_clean_only) {
        return EXIT_SUCCESS;
    }
    INVARIANT(vexa_meta->file_fd >= 0, "vexa_meta->file_fd >= 0");
    install_termination_handler();
    return confine_process() == 0 ? go_on : EXIT_FAILURE;
}
