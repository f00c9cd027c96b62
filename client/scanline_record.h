// Reads a scanline list from shared memory that another process writes. It is validated on a
// private copy, and nothing in it is trusted that does not fit the shared area.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "client/stillimage_client.h"
#include "wire/protocol.h"

// Describes the picture in `area` (`message.area_size` bytes) from the record in `copy` (`size`
// bytes, the scanline area). Returns false and the reason if record, message and area contradict
// each other; *picture is then unspecified. A stride that the record truncates to 16 bits is
// reconstructed from the size in the message.
bool describe_picture(const unsigned char* copy, size_t size, const comm_protocol::frame& message,
                      const unsigned char* area, stillimage_picture* picture, std::string* reason);

// Null, or the reason why no picture can have the size that the message names: each side has 1 to
// 65,535 pixels.
const char* refuse_size(const comm_protocol::frame& message);

// Whether the copy has a complete record: the magic at its beginning and the mark at its end.
bool record_is_complete(const unsigned char* copy, size_t size);
