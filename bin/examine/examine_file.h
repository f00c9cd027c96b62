// Examination of the item: the format and size of its picture, and whether it can be served.
#pragma once

// Identifies the picture, runs the examination of its format, which fills the image state, and
// updates the metadata's entries. Returns 0; 1 after a message; -1, without a message, for a file
// that is not regular or has fewer than 16 bytes. On success the format's reader stays open for its
// decoder. Returns 1 as well when a termination signal arrived before the format had been examined.
int examine_file();
