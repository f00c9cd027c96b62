// The settings of the item. The platform sets them from the command line and the metadata; the
// program and its clients may set some of them, too.
#pragma once

#include <cstdint>

#include "platform/misc.h"

extern char* vexa_file;         // picture to serve; null until a switch names it
extern char* vexa_file_metadir; // folder of the item's metadata
extern char* vexa_sock;         // path of the comm socket
extern char* vexa_file_type;    // type stored in the metadata; null when unknown

extern bool vexa_auto_socket_create; // the platform creates the comm socket itself
extern bool vexa_oneshot;
extern bool vexa_daemon;
extern bool vexa_identify_only;
extern bool vexa_create_meta;
extern bool vexa_temp_clean_only;
extern bool vexa_no_autoshutdown;
extern bool vexa_stderr_to_log;
extern bool vexa_force_update_metadata;
extern bool vexa_metadata_may_update;  // default true
extern int vexa_background_music;      // 0 off, 1 on
extern int_rational vexa_aspect_ratio; // 0/0: unknown, the picture's own
extern int_rational vexa_time_scale;   // units per second
extern int64_t vexa_time_duration;     // units
extern int vexa_video_streams;

// --- their values -------------------------------------------------------------------------------

// Replaces *variable by a copy of `text` (null: none) and frees the old text.
void vexa_set_string(char** variable, const char* text);

// Parses "N:D", "N/D" or "N" (N:1) into *ratio; numbers out of range are clamped. Other text leaves
// *ratio unchanged. 0 when the text was a ratio.
int vexa_parse_int_rational(int_rational* ratio, const char* text);

// 1 for on/yes/true/1, 0 for off/no/false/0, in any case; the present setting for other text.
int vexa_parse_background_music(const char* text);
