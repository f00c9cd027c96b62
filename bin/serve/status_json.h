// What the program adds to the status document, and what clients may set.
#pragma once

#include <map>
#include <string>

#include <json11.hpp>

#include "platform/media_item.h"

// Puts the object "image info" into the document: file type, size, and the client context's number
// unless it is no_context_id. An empty object while the picture is not identified.
void my_custom_json_build(std::map<std::string, json11::Json>& document, unsigned long context_id);

// Takes a client's new "aspect ratio" or "background music"; other names are ignored.
void my_on_metadata_set(comm_socket_v4_client* client, const char* name, std::string& value);
