// After examination: telling its result, and writing the metadata back.
#pragma once

void print_examination_result(); // the item's settings, then the picture's size

// Gives the item its duration and number of streams, hands the entries to the status document,
// writes the metadata when something is new and it may be written, and closes the list. A failing
// write is reported and not fatal.
void write_metadata_back();
