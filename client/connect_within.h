// What stillimage_connect is made of, for callers with a patience of their own.
#pragma once

#include "client/deadline.h"
#include "client/stillimage_client.h"

// As stillimage_connect, but a worker that is not there is looked for until `start` passes. One that
// is there, however busy, has until `until` to take the connection and to greet.
stillimage_result connect_within(const char* socket_path, const deadline& start,
                                 const deadline& until, stillimage_client** client);
