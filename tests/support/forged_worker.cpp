#include "tests/support/forged_worker.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

using namespace comm_protocol;

namespace {

// Memory with the sample's bytes that this process can go on writing.
int shared_memory(forged_answers& answers)
{
    const std::vector<unsigned char>& area = answers.sample.area;
    const int fd = unsealed_memory(area);
    void* mapped = mmap(nullptr, area.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        abort();
    }
    answers.shared = std::shared_ptr<unsigned char>(
        static_cast<unsigned char*>(mapped),
        [size = area.size()](unsigned char* bytes) { munmap(bytes, size); });
    return with_seals(fd, worker_seals);
}

void send_frame(forged_answers& answers, fake_peer& peer, uint64_t request)
{
    uint64_t moment = 0;
    memcpy(&moment, peer.request.data() + packet_header_size, sizeof moment);
    int fd = -1;
    if (!answers.descriptor_sent || answers.descriptor_with_each_frame) {
        fd = answers.make_memory ? answers.make_memory(answers) : shared_memory(answers);
        answers.descriptor_sent = true;
    }
    if (answers.change_frame) {
        answers.change_frame(answers, moment);
        std::copy(answers.sample.area.begin(), answers.sample.area.end(), answers.shared.get());
    }
    const packet_bytes packet = encode(request, answers.sample.message);
    if (fd < 0) {
        peer.send(packet);
    } else {
        peer.send_with_descriptor(packet, fd);
        close(fd);
    }
}

void send_document(const forged_answers& answers, fake_peer& peer, uint64_t request)
{
    const std::string& document = answers.document;
    const auto total = static_cast<uint32_t>(document.size());
    uint32_t offset = 0;
    do {
        const auto text = std::string_view(document).substr(offset, max_status_part);
        if (!peer.send(encode(request, status_part{total, offset, text}))) {
            return;
        }
        offset += static_cast<uint32_t>(text.size());
    } while (offset < total);
}

void subscribe_client(const forged_answers& answers, fake_peer& peer, uint64_t request)
{
    const unsigned char mask = peer.request[packet_header_size];
    peer.send(encode_empty(request, DONE));
    peer.send(encode(request, event{0, 100, 1, "done"}));
    if ((mask & change_document) != 0) {
        send_document(answers, peer, request);
    }
}

void answer(forged_answers& answers, fake_peer& peer, const packet_header& header)
{
    switch (header.type) {
    case HELLO:
        peer.send(encode(header.request, hello_answer{1, 4321, 0}));
        break;
    case GET_STATUS:
        send_document(answers, peer, header.request);
        break;
    case SUBSCRIBE:
        subscribe_client(answers, peer, header.request);
        break;
    case GET_FRAME:
        send_frame(answers, peer, header.request);
        break;
    case PING:
        peer.send(encode_ping(header.request, PONG, ping{header.request}));
        break;
    default:
        peer.send(encode_empty(header.request, DONE));
    }
}

} // namespace

void serve_lies(fake_peer& peer, const lie& told)
{
    forged_answers answers;
    told.tell(answers);
    for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
        if (!answers.instead || !answers.instead(answers, peer, header)) {
            answer(answers, peer, header);
        }
        if (header.type == EXIT) {
            peer.hang_up();
        }
    }
}

std::vector<lie> all_lies()
{
    std::vector<lie> all = {{honest_name, [](forged_answers&) {}, true}};
    for (const auto& some :
         {lies_about_memory(), lies_about_frames(), lies_about_documents(), lies_in_packets()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}
