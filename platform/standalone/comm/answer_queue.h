// The packets that wait to be sent to a client. Bounded: a client that reads nothing costs a few
// kilobytes until it is dropped, because unsolicited packets replace each other here instead of
// accumulating.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "platform/standalone/comm/channel.h"

namespace platform {

// A status document at one moment, shared by all clients to which it is being sent.
using document_text = std::shared_ptr<const std::string>;

// The state in the newest EVENT.
struct event_state {
    int32_t percent = 0;
    int32_t ready = 0;
    std::string progress;
};

enum class undelivered { CHANNEL_GONE, QUEUE_FULL, NO_MEMORY };

class answer_queue {
public:
    // Each call sends what the channel accepts at once and queues the rest. False when the client
    // must be dropped; reason() says why. `now_us` is any monotonic time.
    bool send(packet_channel& channel, comm_socket_v4_packet packet, uint64_t now_us);

    // Sends the document as STATUS packets. `asked`: it answers a request; otherwise it belongs to
    // the subscription and replaces an older document of which nothing has been sent.
    bool send_document(packet_channel& channel, document_text text, uint64_t request, bool asked,
                       uint64_t now_us);

    // Adds the changes to an EVENT that is still queued, or queues a new one.
    bool send_event(packet_channel& channel, uint64_t request, uint32_t changes,
                    const event_state& state, uint64_t now_us);

    // Sends queued packets, a bounded number of them even if the channel accepts more: large
    // documents for some clients must not delay the others. Returns as above.
    static constexpr size_t max_packets_at_once = 4;
    bool flush(packet_channel& channel, uint64_t now_us);

    // Why the last call returned false.
    undelivered reason() const { return reason_; }

    bool empty() const { return entries_.empty(); }

    // Replaces every queued document of which nothing has been sent. Afterwards at most one queued
    // document is older: the one that the client is receiving.
    void renew_documents(const document_text& present);
    bool holds_older_than(const document_text& present) const;

    // Discards everything, for a client that is sent nothing more.
    void discard() { entries_.clear(); }

    // The time since which the client has accepted nothing although packets are queued. Meaningless
    // when the queue is empty.
    uint64_t stalled_since_us() const { return stalled_since_us_; }

private:
    enum class entry_kind { PACKET, DOCUMENT, EVENT };

    struct entry {
        entry_kind kind = entry_kind::PACKET;
        uint64_t request = 0;
        comm_socket_v4_packet packet = {}; // PACKET
        document_text text = {};           // DOCUMENT
        size_t offset = 0;                 // of the first byte that has not been sent
        bool asked = false;
        uint32_t changes = 0; // EVENT
        event_state state = {};
    };

    bool append(packet_channel& channel, entry&& added, uint64_t now_us);
    bool goes_on(channel_result result);
    channel_result send_front(packet_channel& channel);
    static channel_result send_part(packet_channel& channel, entry& document);

    std::list<entry> entries_;
    uint64_t stalled_since_us_ = 0;
    undelivered reason_ = undelivered::CHANNEL_GONE;
};

} // namespace platform
