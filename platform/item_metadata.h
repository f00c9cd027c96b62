// The metadata of the item that this process serves. Entries and the file: platform/metadata.h.
#pragma once

#include "platform/metadata.h"

// Null before vexa_standard_to_derived_params and after vexa_free_all.
extern metadata_v4_context* vexa_meta;
extern metadata_v4_metadata_context* vexa_metadata;

extern bool vexa_do_write_metadata; // something in the metadata is new

void vexa_print_standard_metadata_state(); // on standard error
void vexa_standard_vars_to_metadata(metadata_v4_metadata_context* list);
