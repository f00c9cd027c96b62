// Size and time of a picture as metadata keeps them: what was learnt from a picture holds only
// while they are still the same.
#pragma once

#include <string>
#include <sys/stat.h>

#include "platform/metadata.h"

namespace platform {

struct picture_stamp {
    std::string size; // bytes, decimal
    std::string time; // of the last modification, UTC: "2024-05-31T23:59:59.123456789Z"
};

picture_stamp stamp_of(const struct stat& status);

// The stamp of an open picture. False with errno when it cannot be looked at.
bool read_picture_stamp(int fd, picture_stamp* stamp);

// True when the list holds a size or time of the picture that is not the present one; then what it
// says of the picture's type is not to be believed. A list without them contradicts nothing.
bool metadata_is_stale(const metadata_v4_metadata_context* list, const picture_stamp& present);

// Frees what a stale list says of the picture itself: type, size, timeline and the old stamp. What
// people have chosen for the item stays.
void drop_stale_facts(metadata_v4_metadata_context* list);

// Writes the stamp into the list. As set_item_entry: 1 changed, 0 already so, -1 refused.
int set_picture_stamp(metadata_v4_metadata_context* list, const picture_stamp& stamp);

} // namespace platform
