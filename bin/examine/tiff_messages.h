// Prints libtiff's messages on standard error, one line each. A caller that may have to repeat an
// operation in another way can choose which of its messages are printed.
#pragma once

enum tiff_message_fate : int {
    TIFF_MESSAGES_PRINTED,
    TIFF_MESSAGES_NOTED,     // printed, and the first few are remembered
    TIFF_MESSAGES_COUNTED,   // counted, not printed
    TIFF_MESSAGES_NOT_AGAIN, // printed, except repetitions of the remembered ones in their order
    TIFF_MESSAGES_DROPPED,   // not printed until the next install_tiff_messages()
};

// Installs this unit's handlers in the library. From now on messages are printed.
void install_tiff_messages();

// Sets what happens to the messages from now on. Clears the remembered messages or the count when
// it starts to remember or to count.
void set_tiff_message_fate(tiff_message_fate fate);

// The number of messages since counting started.
unsigned counted_tiff_messages();
