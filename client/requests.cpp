#include "client/requests.h"

#include <algorithm>
#include <utility>

#include "wire/utf8.h"

namespace {

// The caller's result for the code of an ERROR packet.
stillimage_result result_for(int32_t code)
{
    switch (code) {
    case comm_protocol::VERSION_MISMATCH:
    case comm_protocol::NOT_ALLOWED:
        return STILLIMAGE_ERROR_REFUSED;
    case comm_protocol::LIMIT:
    case comm_protocol::SLOW_CLIENT:
        return STILLIMAGE_ERROR_LIMIT;
    case comm_protocol::NO_SUCH_FRAME:
    case comm_protocol::NO_SUCH_REFERENCE:
        return STILLIMAGE_ERROR_NO_FRAME;
    case comm_protocol::NO_MEMORY:
        return STILLIMAGE_ERROR_SYSTEM;
    case comm_protocol::REFUSED_VALUE:
        return STILLIMAGE_ERROR_VALUE;
    case comm_protocol::NOT_STORED:
        return STILLIMAGE_ERROR_NOT_STORED;
    case comm_protocol::NOT_READY:
        return STILLIMAGE_ERROR_NOT_READY;
    case comm_protocol::GOING_DOWN:
        return STILLIMAGE_ERROR_NO_WORKER;
    default:
        return STILLIMAGE_ERROR_PROTOCOL;
    }
}

stillimage_result report_error_packet(stillimage_client& client, const received_packet& packet)
{
    comm_protocol::error error;
    if (!comm_protocol::decode(packet.body, packet.size, &error)) {
        return fail(client, STILLIMAGE_ERROR_PROTOCOL, "the worker sent a malformed error");
    }
    const std::string_view text = wire::truncate_utf8(error.text, comm_protocol::max_packet_text);
    return fail(client, result_for(error.code), "the worker says: " + std::string(text));
}

// Skips changes that only the library itself has subscribed to.
void call_handler(stillimage_client& client, uint32_t changes, const char* document)
{
    const uint32_t wanted = changes & client.wanted_changes;
    if (changes != 0 && wanted == 0) {
        return;
    }
    client.state.changes = wanted;
    client.state.progress = client.progress.c_str();
    stillimage_event event = client.state;
    event.document = document;
    if (client.handler != nullptr) {
        client.in_handler = true;
        client.handler(client.handler_data, &event);
        client.in_handler = false;
    }
}

void process_event(stillimage_client& client, const received_packet& packet)
{
    comm_protocol::event event;
    if (comm_protocol::decode(packet.body, packet.size, &event)) {
        client.state.percent = std::clamp(event.percent, -1, 100);
        client.state.ready = std::clamp(event.ready, -1, 1);
        client.progress = event.progress;
        call_handler(client, event.changes, nullptr);
    }
}

enum class document_progress { MORE, WHOLE, BROKEN };

// Appends the next part to *document.
document_progress add_document_part(const received_packet& packet, std::string* document)
{
    constexpr size_t max_document_size = size_t{16} << 20;
    comm_protocol::status_part part;
    if (!comm_protocol::decode(packet.body, packet.size, &part) || part.total > max_document_size) {
        return document_progress::BROKEN;
    }
    if (part.offset == 0) {
        document->clear();
    }
    if (part.offset != document->size() || part.text.size() > part.total - part.offset ||
        (part.text.empty() && part.total != 0)) {
        return document_progress::BROKEN;
    }
    document->append(part.text);
    return document->size() == part.total ? document_progress::WHOLE : document_progress::MORE;
}

void process_document_part(stillimage_client& client, const received_packet& packet)
{
    if (add_document_part(packet, &client.document) == document_progress::WHOLE) {
        const std::string document = std::move(client.document);
        client.document.clear();
        call_handler(client, comm_protocol::change_document, document.c_str());
    }
}

// Releases a frame whose caller has stopped waiting. The worker sends the buffer's descriptor only
// once, so it is used even then.
void release_late_frame(stillimage_client& client, const received_packet& packet)
{
    comm_protocol::frame frame;
    if (comm_protocol::decode(packet.body, packet.size, &frame)) {
        update_mapping(client, packet, frame);
        release_reference(client, frame.reference);
    }
}

bool is_unsolicited(const stillimage_client& client, const comm_protocol::packet_header& header)
{
    return header.type == comm_protocol::EVENT ||
           (header.type == comm_protocol::STATUS && header.request == client.subscription &&
            client.subscription != 0);
}

} // namespace

stillimage_result update_mapping(stillimage_client& client, const received_packet& packet,
                                 const comm_protocol::frame& frame)
{
    if (packet.descriptor) {
        std::string why;
        auto area = shared_area::map(packet.descriptor.get(), frame.area_size, &why);
        if (area == nullptr) {
            return fail(client, STILLIMAGE_ERROR_RECORD, why);
        }
        client.area = std::move(area);
    }
    if (client.area == nullptr) {
        return fail(client, STILLIMAGE_ERROR_PROTOCOL, "the worker sent no buffer");
    }
    return STILLIMAGE_OK;
}

void release_reference(stillimage_client& client, uint64_t reference)
{
    client.unsent_releases.push_back(reference);
    send_releases(client);
}

void send_releases(stillimage_client& client)
{
    const std::string error_before = client.last_error;
    while (client.socket && !client.unsent_releases.empty()) {
        const comm_protocol::release_frame message{client.unsent_releases.back()};
        const auto packet = comm_protocol::encode(++client.last_request, message);
        if (send_packet(client, packet, deadline(0)) != STILLIMAGE_OK) {
            break;
        }
        client.unsent_releases.pop_back();
    }
    client.last_error = error_before;
}

stillimage_result process_unsolicited(stillimage_client& client, received_packet& packet)
{
    if (packet.header.type == comm_protocol::EVENT) {
        process_event(client, packet);
    } else if (is_unsolicited(client, packet.header)) {
        process_document_part(client, packet);
    } else if (packet.header.type == comm_protocol::ERROR && packet.header.request == 0) {
        return report_error_packet(client, packet); // the reason why the worker is about to hang up
    } else if (client.abandoned_frames.erase(packet.header.request) != 0 &&
               packet.header.type == comm_protocol::FRAME) {
        release_late_frame(client, packet);
    }
    return STILLIMAGE_OK;
}

stillimage_result await_answer(stillimage_client& client, uint64_t number,
                               comm_protocol::packet_type expected, const deadline& until,
                               received_packet* answer)
{
    while (true) {
        stillimage_result result = receive_packet(client, until, answer);
        if (result != STILLIMAGE_OK) {
            return result;
        }
        if (answer->header.request == number && !is_unsolicited(client, answer->header)) {
            break;
        }
        result = process_unsolicited(client, *answer);
        if (result != STILLIMAGE_OK) {
            return result;
        }
    }
    client.unread_releases = 0; // the answers to earlier releases have been read
    if (answer->header.type == comm_protocol::ERROR) {
        return report_error_packet(client, *answer);
    }
    if (answer->header.type != expected) {
        return fail(client, STILLIMAGE_ERROR_PROTOCOL, "the worker gave another kind of answer");
    }
    return STILLIMAGE_OK;
}

stillimage_result ask(stillimage_client& client, const comm_protocol::packet_bytes& request,
                      comm_protocol::packet_type expected, const deadline& until,
                      received_packet* answer)
{
    const uint64_t number = client.last_request;
    send_releases(client);
    const stillimage_result result = send_packet(client, request, until);
    return result == STILLIMAGE_OK ? await_answer(client, number, expected, until, answer) : result;
}

stillimage_result subscribe(stillimage_client& client, uint32_t mask, const deadline& until)
{
    const auto request =
        comm_protocol::encode(++client.last_request, comm_protocol::subscribe{mask});
    client.subscription = mask != 0 ? client.last_request : 0;
    client.document.clear();
    received_packet answer;
    const stillimage_result result = ask(client, request, comm_protocol::DONE, until, &answer);
    if (result != STILLIMAGE_OK) {
        client.subscription = 0;
    }
    return result;
}

stillimage_result collect_status(stillimage_client& client, const deadline& until,
                                 std::string* document)
{
    received_packet answer;
    const auto request =
        comm_protocol::encode_empty(++client.last_request, comm_protocol::GET_STATUS);
    const uint64_t number = client.last_request;
    stillimage_result result = ask(client, request, comm_protocol::STATUS, until, &answer);
    while (result == STILLIMAGE_OK) {
        switch (add_document_part(answer, document)) {
        case document_progress::WHOLE:
            return STILLIMAGE_OK;
        case document_progress::BROKEN:
            return fail(client, STILLIMAGE_ERROR_PROTOCOL, "the worker sent a broken document");
        case document_progress::MORE:
            result = await_answer(client, number, comm_protocol::STATUS, until, &answer);
        }
    }
    return result;
}
