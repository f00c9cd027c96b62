// Connecting to a worker's socket.
#pragma once

#include <string>

#include "client/deadline.h"
#include "client/stillimage_client.h"

// How long a starting worker may take to create its socket.
inline constexpr int default_start_ms = 5000;

// Connects `client` to the worker at `path`, checks the worker's user, and exchanges greetings. If
// there is no worker, it retries until `start` passes; a worker that is running but busy has until
// `until` to accept the connection and to answer.
stillimage_result open_connection(stillimage_client& client, const std::string& path,
                                  const deadline& start, const deadline& until);

// stillimage_connect with both deadlines.
stillimage_result connect_within(const char* socket_path, const deadline& start,
                                 const deadline& until, stillimage_client** client);
