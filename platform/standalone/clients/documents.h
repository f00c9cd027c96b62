// The status document on its way to clients: for those that request it and those that subscribe to
// it. However often clients request it and change it, it is rebuilt at most every ten milliseconds;
// a request that comes earlier waits for the rebuild. The contract's call is json_check_xmit of
// platform/document.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/standalone/comm/server.h"

namespace platform {

// Limit of the older documents that slow clients have not received completely. Beyond it the
// clients that have read nothing for the longest time are dropped.
inline constexpr size_t max_old_document_bytes = size_t{8} << 20;

// Bytes of the documents that have been replaced by newer ones and are still being sent.
size_t old_document_bytes();

// Begins a round and answers the requests that had to wait, if the document may be rebuilt. Within
// a round the document is rebuilt at most once. Returns the number of answers.
int begin_document_round(uint64_t now_us);

// Sends the document in answer to `request`, at once or in a later round. No further request of the
// client is read until then. `asked`: by GET_STATUS; otherwise with the subscription.
void give_document(comm_socket_v4_client& client, uint64_t request, bool asked, uint64_t now_us);

// When the next round should answer waiting requests; UINT64_MAX when there are none.
uint64_t next_document_round_us();

// Answers all waiting requests, for the end of the service.
void finish_waiting_documents(uint64_t now_us);

// Sends the present document to every subscriber that does not have it. It replaces an older
// document of which nothing has been sent to the client yet.
void send_document_to_subscribers();

// Sends the document to its subscribers when it has changed. The serving loop does this as well,
// but while a picture is decoded only the service's own rounds run.
void send_changed_document(comm_socket_v4_server& server, uint64_t now_us);

void reset_client_documents();

} // namespace platform
