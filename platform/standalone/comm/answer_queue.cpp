#include "platform/standalone/comm/answer_queue.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace platform {

using namespace comm_protocol;

bool answer_queue::send(packet_channel& channel, comm_socket_v4_packet packet, uint64_t now_us)
{
    // The common case allocates nothing for the queue.
    if (entries_.empty()) {
        const channel_result result = channel.send(packet);
        if (result != channel_result::AGAIN) {
            return goes_on(result);
        }
    }
    entry added;
    added.packet = std::move(packet);
    return append(channel, std::move(added), now_us);
}

bool answer_queue::send_document(packet_channel& channel, document_text text, uint64_t request,
                                 bool asked, uint64_t now_us)
{
    if (!asked) {
        for (entry& waiting : entries_) {
            if (waiting.kind == entry_kind::DOCUMENT && !waiting.asked && waiting.offset == 0) {
                waiting.text = std::move(text);
                waiting.request = request;
                return true;
            }
        }
    }
    entry added;
    added.kind = entry_kind::DOCUMENT;
    added.request = request;
    added.text = std::move(text);
    added.asked = asked;
    return append(channel, std::move(added), now_us);
}

void answer_queue::renew_documents(const document_text& present)
{
    for (entry& queued : entries_) {
        if (queued.kind == entry_kind::DOCUMENT && queued.offset == 0) {
            queued.text = present;
        }
    }
}

bool answer_queue::holds_older_than(const document_text& present) const
{
    return std::any_of(entries_.begin(), entries_.end(), [&](const entry& queued) {
        return queued.kind == entry_kind::DOCUMENT && queued.text != present;
    });
}

bool answer_queue::send_event(packet_channel& channel, uint64_t request, uint32_t changes,
                              const event_state& state, uint64_t now_us)
{
    for (entry& waiting : entries_) {
        if (waiting.kind == entry_kind::EVENT && waiting.request == request) {
            waiting.changes |= changes;
            waiting.state = state;
            return true;
        }
    }
    entry added;
    added.kind = entry_kind::EVENT;
    added.request = request;
    added.changes = changes;
    added.state = state;
    return append(channel, std::move(added), now_us);
}

bool answer_queue::append(packet_channel& channel, entry&& added, uint64_t now_us)
{
    if (entries_.size() >= max_queued_answers) {
        reason_ = undelivered::QUEUE_FULL;
        return false;
    }
    if (entries_.empty()) {
        stalled_since_us_ = now_us;
    }
    entries_.push_back(std::move(added));
    return entries_.size() > 1 || flush(channel, now_us);
}

bool answer_queue::goes_on(channel_result result)
{
    if (result == channel_result::GONE) {
        reason_ = undelivered::CHANNEL_GONE;
    } else if (result == channel_result::NO_MEMORY) {
        reason_ = undelivered::NO_MEMORY;
    } else {
        return true;
    }
    return false;
}

bool answer_queue::flush(packet_channel& channel, uint64_t now_us)
{
    for (size_t packets = 0; packets < max_packets_at_once && !entries_.empty(); ++packets) {
        const channel_result result = send_front(channel);
        if (result != channel_result::DONE) {
            return goes_on(result);
        }
        stalled_since_us_ = now_us;
    }
    return true;
}

// Sends one packet of the first entry; the entry is removed after its last packet.
channel_result answer_queue::send_front(packet_channel& channel)
{
    entry& front = entries_.front();
    channel_result result = channel_result::DONE;
    if (front.kind == entry_kind::DOCUMENT) {
        result = send_part(channel, front);
        if (result == channel_result::DONE && front.offset < front.text->size()) {
            return result;
        }
    } else if (front.kind == entry_kind::EVENT) {
        const event message = {front.changes, front.state.percent, front.state.ready,
                               front.state.progress};
        result = channel.send({encode(front.request, message), {}});
    } else {
        result = channel.send(front.packet);
    }
    if (result == channel_result::DONE) {
        entries_.pop_front();
    }
    return result;
}

channel_result answer_queue::send_part(packet_channel& channel, entry& document)
{
    const std::string_view text = *document.text;
    const std::string_view part = text.substr(document.offset, max_status_part);
    const channel_result result = channel.send(
        {encode(document.request, status_part{static_cast<uint32_t>(text.size()),
                                              static_cast<uint32_t>(document.offset), part}),
         {}});
    if (result == channel_result::DONE) {
        document.offset += part.size();
    }
    return result;
}

} // namespace platform
