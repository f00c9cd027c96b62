#include "platform/standalone/item/settings.h"

#include <cstdlib>
#include <cstring>

#include "platform/cnb.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"

namespace {

constexpr int_rational one_unit_a_second = {1, 1};

} // namespace

char* vexa_file = nullptr;
char* vexa_file_metadir = nullptr;
char* vexa_sock = nullptr;
char* vexa_file_type = nullptr;

metadata_v4_context* vexa_meta = nullptr;
metadata_v4_metadata_context* vexa_metadata = nullptr;

bool vexa_auto_socket_create = false;
bool vexa_oneshot = false;
bool vexa_daemon = false;
bool vexa_identify_only = false;
bool vexa_create_meta = false;
bool vexa_temp_clean_only = false;
bool vexa_no_autoshutdown = false;
bool vexa_stderr_to_log = false;
bool vexa_force_update_metadata = false;
bool vexa_do_write_metadata = false;
bool vexa_metadata_may_update = true;
int vexa_background_music = 0;
int_rational vexa_aspect_ratio = {0, 0};
int_rational vexa_time_scale = one_unit_a_second;
int64_t vexa_time_duration = 0;
int vexa_video_streams = 0;

void vexa_set_string(char** variable, const char* text)
{
    char* copy = text != nullptr ? strdup(text) : nullptr;
    free(*variable);
    *variable = copy;
}

namespace platform {

switch_settings from_switches;

bool mode_serves()
{
    return !vexa_identify_only && !vexa_create_meta && !vexa_temp_clean_only;
}

void free_setting_texts()
{
    for (char** text : {&vexa_file, &vexa_file_metadir, &vexa_sock, &vexa_file_type}) {
        vexa_set_string(text, nullptr);
    }
}

void reset_settings()
{
    free_setting_texts();
    from_switches = {};
    for (bool* flag : {&vexa_auto_socket_create, &vexa_oneshot, &vexa_daemon, &vexa_identify_only,
                       &vexa_create_meta, &vexa_temp_clean_only, &vexa_no_autoshutdown,
                       &vexa_stderr_to_log, &vexa_force_update_metadata, &vexa_do_write_metadata}) {
        *flag = false;
    }
    vexa_metadata_may_update = true;
    vexa_background_music = 0;
    vexa_aspect_ratio = {0, 0};
    vexa_time_scale = one_unit_a_second;
    vexa_time_duration = 0;
    vexa_video_streams = 0;
}

} // namespace platform
