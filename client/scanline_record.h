// The scanline list as a reader meets it: bytes in memory that somebody else writes. They are
// judged on a private copy; nothing of them is believed that the shared area does not bear out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/stillimage_client.h"
#include "wire/protocol.h"

// Describes the picture in `area` (`message.area_size` bytes) by the record in `copy` (`size`
// bytes, the scanline area). False with the reason when the two contradict each other or the area:
// then *picture is unspecified. Numbers that the record holds cut to 16 bits are rebuilt from the
// message's size.
bool describe_picture(const unsigned char* copy, size_t size, const comm_protocol::frame& message,
                      const unsigned char* area, stillimage_picture* picture, std::string* reason);

// Is a whole record in place: magic at its beginning, end mark at its end?
bool record_is_whole(const unsigned char* copy, size_t size);
