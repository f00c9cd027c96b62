// After examination: prints its result and writes the metadata back.
#pragma once

void print_examination_result(); // the item's settings, then the picture's size

// Sets the item's duration and number of streams, copies the entries to the status document, writes
// the metadata if it has changed and may be written, and closes the list. A write that fails is
// reported and is not fatal.
void write_metadata_back();
