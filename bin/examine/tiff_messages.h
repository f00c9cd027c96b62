// Where libtiff's messages go: to standard error, one line each. A caller that tries something out
// and may have to do it again in another way decides which of them are seen.
#pragma once

enum tiff_message_fate : int {
    TIFF_MESSAGES_PRINTED,
    TIFF_MESSAGES_NOTED,     // printed, and the first few are remembered
    TIFF_MESSAGES_COUNTED,   // not printed
    TIFF_MESSAGES_NOT_AGAIN, // printed, but for those that were noted and come again, in their order
    TIFF_MESSAGES_DROPPED,   // not printed, until install_tiff_messages()
};

// Makes the library use this unit; messages are printed from now on.
void install_tiff_messages();

// What happens to the messages from now on. Noting and counting start anew.
void set_tiff_message_fate(tiff_message_fate fate);

// How many there were since counting started.
unsigned counted_tiff_messages();
