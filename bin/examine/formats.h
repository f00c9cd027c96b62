// The picture formats that are served: what identification, examination and clean-up need to know
// of each, in one table. Which decoder reads a format is decided in bin/decode_dispatch.cpp.
#pragma once

#include <span>
#include <string_view>

struct picture_format {
    int type;         // an image_type
    const char* name; // for people; also accepted, in any case, as the file type of the metadata
    const char* mime; // as stored in the metadata; accepted in any case

    // Whether a file that begins with these bytes has this format. No two formats accept the same
    // file. The bytes are the first few megabytes of the file, or the whole of a shorter one.
    bool (*matches)(std::string_view file_start);

    // 0 with the image state set and the reader open; otherwise a message was printed, and
    // `examination_failed` is printed after it.
    int (*examine)();
    const char* examination_failed;

    // Closes the reader. Accepts a reader that was never opened; may run twice.
    void (*free_all)();
};

extern const std::span<const picture_format> picture_formats;

// The format with this number, or null.
const picture_format* find_format(int type);

// Closes every format's reader, in the order of the table. May run twice.
void free_all_readers();
