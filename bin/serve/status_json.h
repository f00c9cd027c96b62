// The program's part of the status document, and the values that clients may set.
#pragma once

#include <map>
#include <string>

#include "platform/comm.h"
#include "platform/document.h"

// Adds the object "image info" to the document: file type, size, and the id of the client context
// unless that is no_context_id. The object is empty while the picture is not identified.
void my_custom_json_build(std::map<std::string, json11::Json>& document, unsigned long context_id);

// Sets the "aspect ratio" or the "background music" to a client's value; ignores other names.
void my_on_metadata_set(comm_socket_v4_client* client, const char* name, std::string& value);
