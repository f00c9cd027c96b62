// Examination of the item: what kind of picture it is, how large, and whether it can be served.
#pragma once

// Identifies the picture, lets its format's examination fill the image state, and brings the
// metadata's entries up to date. 0; 1 with a message; -1, without one, when the file is no regular
// file of at least 16 bytes. On success the format's reader stays open for its decoder. Fails, too,
// when DIE4 was set by the time the format had been examined.
int examine_file();
