#include "platform/standalone/item/switches.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/run_state.h"
#include "platform/settings.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/cnb/domain.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/item/values.h"
#include "platform/standalone/report/standard_error.h"
#include "platform/standalone/report/status.h"
#include "platform/start_up.h"
#include "wire/item_paths.h"
#include "wire/utf8.h"

namespace platform {

namespace {

char** next_argument = nullptr;

// --- taking a value -----------------------------------------------------------------------------

template <char** variable>
bool take_text(const char* text)
{
    if (*text == '\0') {
        return false;
    }
    vexa_set_string(variable, text);
    return true;
}

template <bool* flag, bool state = true>
bool take_flag(const char* /*text*/)
{
    *flag = state;
    return true;
}

template <bool switch_settings::*flag>
bool take_switch(const char* /*text*/)
{
    from_switches.*flag = true;
    return true;
}

bool take_file_type(const char* text)
{
    from_switches.file_type_given = true;
    return take_text<&vexa_file_type>(text);
}

bool take_domain(const char* text)
{
    if (!cnb_domain_name_valid(text)) {
        return false;
    }
    from_switches.domain = text;
    return true;
}

bool take_domain_limit(const char* text)
{
    return parse_size(text, &from_switches.domain_limit);
}

bool take_auto_shutdown(const char* text)
{
    return parse_seconds(text, &auto_shutdown_delay_initial);
}

bool take_aspect_ratio(const char* text)
{
    from_switches.aspect_ratio_given = true;
    return parse_aspect_ratio(text, &vexa_aspect_ratio);
}

bool take_background_music(const char* text)
{
    bool on = false;
    if (!parse_on_off(text, &on)) {
        return false;
    }
    from_switches.background_music_given = true;
    vexa_background_music = on ? 1 : 0;
    return true;
}

bool take_status_fd(const char* text)
{
    int fd = -1;
    return parse_descriptor(text, &fd) && open_status_channel(fd);
}

// --- what holds without a switch ----------------------------------------------------------------

std::string none()
{
    return "none";
}

std::string off()
{
    return "off";
}

std::string from_metadata()
{
    return "from the metadata";
}

std::string standard_metadir()
{
    std::string folder;
    return item_paths::state_folder(&folder) ? folder + "/STEM-HASH" : none();
}

std::string standard_socket()
{
    return item_paths::runtime_folder() + "/STEM-HASH.sock";
}

std::string standard_domain()
{
    return default_cnb_domain;
}

std::string standard_domain_limit()
{
    return "half of the memory";
}

std::string standard_auto_shutdown()
{
    return "60";
}

std::string metadata_updated()
{
    return "metadata may be updated";
}

void print_switch(const standard_switch& row)
{
    std::string usage = std::string(" --") + row.name;
    if (row.value != nullptr) {
        usage = usage + ' ' + row.value;
    }
    const std::string standard = wire::printable(row.standard_value());
    fprintf(stderr, "%-30s %s [%s]\n", usage.c_str(), row.help, standard.c_str());
}

const standard_switch* find_switch(std::string_view name)
{
    for (size_t i = 0; i < standard_switch_count; ++i) {
        if (name == standard_switches[i].name) {
            return &standard_switches[i];
        }
    }
    return nullptr;
}

int refuse(const standard_switch& row, const char* value, const char* reason)
{
    const std::string name = std::string("--") + row.name;
    if (value == nullptr) {
        fprintf(stderr, "%s: %s\n", name.c_str(), reason);
    } else {
        error_line(name, value, reason);
    }
    return -1;
}

} // namespace

const standard_switch standard_switches[] = {
    {"file", "PATH", take_text<&vexa_file>, "a path", "picture to serve", none},
    {"metadir", "DIR", take_text<&vexa_file_metadir>, "a path", "folder of the item's metadata",
     standard_metadir},
    {"sock", "PATH", take_text<&vexa_sock>, "a path", "socket that clients connect to",
     standard_socket},
    {"file-type", "NAME", take_file_type, "a name", "type of the file, not looked for in it",
     from_metadata},
    {"domain", "NAME", take_domain, "a name of 1 to 64 bytes without '/', no '.' first",
     "buffer domain to join", standard_domain},
    {"domain-limit", "SIZE", take_domain_limit, "a size such as 512M, 4G or a number of bytes",
     "what all buffers of the domain may take together", standard_domain_limit},
    {"auto-shutdown", "SECONDS", take_auto_shutdown, "a number of seconds such as 60 or 0.5",
     "time without a client after which the worker ends", standard_auto_shutdown},
    {"no-autoshutdown", nullptr, take_flag<&vexa_no_autoshutdown>, nullptr, "never end by itself",
     off},
    {"oneshot", nullptr, take_flag<&vexa_oneshot>, nullptr, "end after one round of serving", off},
    {"daemon", nullptr, take_flag<&vexa_daemon>, nullptr, "go into the background", off},
    {"identify-only", nullptr, take_flag<&vexa_identify_only>, nullptr,
     "identify the file, update its metadata and end", off},
    {"create-meta", nullptr, take_flag<&vexa_create_meta>, nullptr,
     "create the file's metadata and end", off},
    {"temp-clean-only", nullptr, take_flag<&vexa_temp_clean_only>, nullptr,
     "remove what an earlier worker left behind and end", off},
    {"stderr-to-log", nullptr, take_flag<&vexa_stderr_to_log>, nullptr,
     "write messages to the file 'log' in the metadata folder", off},
    {"force-update-metadata", nullptr, take_flag<&vexa_force_update_metadata>, nullptr,
     "write the metadata back even if nothing changed", off},
    {"no-metadata-update", nullptr, take_flag<&vexa_metadata_may_update, false>, nullptr,
     "never write the metadata", metadata_updated},
    {"aspect-ratio", "N:D", take_aspect_ratio, "a ratio such as 16:9, or 0:0",
     "aspect ratio of the picture, 0:0 its own", from_metadata},
    {"background-music", "on|off", take_background_music, "on or off",
     "whether music may play behind the picture", from_metadata},
    {"core-files", nullptr, take_switch<&switch_settings::core_files>, nullptr,
     "let a crash write a core file", off},
    {"require-confinement", nullptr, take_switch<&switch_settings::require_confinement>, nullptr,
     "end when the kernel refuses to confine the worker", off},
    {"status-fd", "N", take_status_fd, "the number of a descriptor open for writing",
     "where progress and readiness are told, as lines of JSON", none},
};
const size_t standard_switch_count = sizeof standard_switches / sizeof standard_switches[0];

void reset_switches()
{
    next_argument = nullptr;
}

} // namespace platform

using namespace platform;

int vexa_init_argv(int argc, char** argv)
{
    reset_switches();
    if (argc < 1 || argv == nullptr || argv[0] == nullptr) {
        return -1;
    }
    guard_standard_error();
    next_argument = argv + 1;
    return 0;
}

char* vexa_next_arg()
{
    if (next_argument == nullptr || *next_argument == nullptr) {
        return nullptr;
    }
    return *next_argument++;
}

int vexa_argv_is_switch(char** argument)
{
    if (**argument != '-') {
        return 0;
    }
    *argument += (*argument)[1] == '-' ? 2 : 1;
    return 1;
}

int vexa_argv_std_handle_switch(char* word)
{
    const std::string_view whole(word);
    const size_t equals = whole.find('=');
    const standard_switch* row = find_switch(whole.substr(0, equals));
    if (row == nullptr) {
        return 0;
    }
    const char* value = equals == std::string_view::npos ? nullptr : word + equals + 1;
    if (row->value == nullptr) {
        if (value != nullptr) {
            return refuse(*row, value, "this switch takes no value");
        }
        row->take(nullptr);
        return 1;
    }
    if (value == nullptr) {
        value = vexa_next_arg();
    }
    if (value == nullptr) {
        return refuse(*row, nullptr, "a value is missing");
    }
    if (!row->take(value)) {
        return refuse(*row, value, (std::string("not ") + row->wanted).c_str());
    }
    return 1;
}

void vexa_std_help()
{
    fputs(
        "usage: stillimage --file PICTURE [SWITCH [VALUE]]...\n"
        "example: stillimage --file photo.jpg --no-autoshutdown\n"
        "A value stands behind its switch or behind '='; one dash or two. In brackets: what holds "
        "without the switch.\n",
        stderr);
    for (size_t i = 0; i < standard_switch_count; ++i) {
        print_switch(standard_switches[i]);
    }
}
