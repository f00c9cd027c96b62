// Size and modification time of a picture in its metadata: facts about a picture are valid only
// while both are unchanged.
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

// The stamp of an open picture. False with errno when the picture cannot be inspected.
bool read_picture_stamp(int fd, picture_stamp* stamp);

// True when the list contains a size or time of the picture that differs from the present one; its
// facts about the picture are then out of date. A list without them is accepted.
bool metadata_is_stale(const metadata_v4_metadata_context* list, const picture_stamp& present);

// Frees the entries of a stale list that describe the picture itself: type, size, timeline and the
// old stamp. Settings that people have chosen for the item are kept.
void drop_stale_facts(metadata_v4_metadata_context* list);

// Writes the stamp into the list. Returns as set_item_entry: 1 changed, 0 unchanged, -1 rejected.
int set_picture_stamp(metadata_v4_metadata_context* list, const picture_stamp& stamp);

} // namespace platform
