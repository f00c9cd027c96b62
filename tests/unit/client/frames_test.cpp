// How the client handles the frames a worker sends: valid ones and every kind of invalid one.
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/fake_worker.h"
#include "tests/support/hooked_calls.h"
#include "tests/unit/client/opened.h"

namespace {

using namespace comm_protocol;

// The error that a client gets when it asks this worker for a frame.
std::string frame_error(const std::function<void(fake_peer&)>& script, stillimage_result expected)
{
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        script(peer);
    });
    const opened connection(worker.path());
    EXPECT_EQ(connection.result, STILLIMAGE_OK) << connection.error();
    stillimage_frame* frame = nullptr;
    EXPECT_EQ(connection.get(&frame), expected) << connection.error();
    EXPECT_EQ(frame, nullptr);
    return connection.error();
}

// The same for a worker that answers with the sample and this descriptor.
std::string descriptor_error(const frame_sample& sample, int descriptor, stillimage_result expected)
{
    const std::string text = frame_error(
        [&](fake_peer& peer) {
            peer.serve_frame(sample, descriptor);
            peer.await_end();
        },
        expected);
    close(descriptor);
    return text;
}

TEST(ClientFrame, StaysReadableAfterWorkerAndConnectionEnd)
{
    const frame_sample sample({.alpha = true});
    stillimage_frame* frame = nullptr;
    {
        const fake_worker worker([&](fake_peer& peer) {
            const int memory = sealed_memory(sample.area);
            peer.greet();
            peer.serve_frame(sample, memory);
            close(memory);
        });
        const opened connection(worker.path());
        ASSERT_EQ(connection.get(&frame), STILLIMAGE_OK) << connection.error();
    }
    const stillimage_picture& picture = *stillimage_frame_picture(frame);
    for (size_t p = 0; p < STILLIMAGE_PLANES; ++p) {
        const size_t size = size_t{picture.stride[p]} * picture.plane_height[p];
        EXPECT_EQ(memcmp(picture.plane[p], sample.area.data() + sample.offsets[p], size), 0);
    }
    const stillimage_descriptor_info& info = *stillimage_frame_descriptor(frame);
    EXPECT_EQ(info.buffer, 7);
    EXPECT_EQ(info.area_size, sample.area.size());
    EXPECT_EQ(info.scanline_size, 197);
    EXPECT_EQ(memcmp(info.scanline, sample.record(), 197), 0);
    EXPECT_EQ(memcmp(info.area, sample.area.data(), sample.area.size()), 0);
    stillimage_frame_release(frame);
}

TEST(ClientFrame, MappingIsSharedAndReleasesReachTheWorker)
{
    const frame_sample sample;
    int releases = 0;
    {
        const fake_worker worker([&](fake_peer& peer) {
            const int memory = sealed_memory(sample.area);
            peer.greet();
            peer.serve_frame(sample, memory);
            peer.serve_frame(sample, -1);
            close(memory);
            while (peer.next().type == RELEASE_FRAME) {
                ++releases;
            }
        });
        const opened connection(worker.path());
        stillimage_frame* first = nullptr;
        stillimage_frame* second = nullptr;
        ASSERT_EQ(connection.get(&first), STILLIMAGE_OK) << connection.error();
        ASSERT_EQ(connection.get(&second), STILLIMAGE_OK) << connection.error();
        EXPECT_EQ(stillimage_frame_picture(first)->plane[0],
                  stillimage_frame_picture(second)->plane[0]);
        stillimage_frame_release(first);
        stillimage_frame_release(second);
    }
    EXPECT_EQ(releases, 2);
}

TEST(ClientFrame, InvalidBufferDescriptorIsRefused)
{
    const frame_sample sample;
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(descriptor_error(sample, ends[0], STILLIMAGE_ERROR_RECORD),
              "the buffer's descriptor is not a memory file");
    close(ends[1]);
    std::vector<unsigned char> cut = sample.area;
    cut.pop_back();
    EXPECT_EQ(descriptor_error(sample, sealed_memory(cut), STILLIMAGE_ERROR_RECORD),
              "the buffer is shorter than the worker says");
    EXPECT_EQ(descriptor_error(sample, sealed_memory({}), STILLIMAGE_ERROR_RECORD),
              "the buffer is shorter than the worker says");
    EXPECT_EQ(descriptor_error(sample, unsealed_memory(sample.area), STILLIMAGE_ERROR_RECORD),
              "the buffer is not sealed against changes of its size and of its memory");
    const auto without = [&](fake_peer& peer) {
        peer.serve_frame(sample, -1);
        peer.await_end();
    };
    EXPECT_EQ(frame_error(without, STILLIMAGE_ERROR_PROTOCOL), "the worker sent no buffer");
}

TEST(ClientFrame, InvalidRecordIsRefused)
{
    const std::string prefix = "the picture's description in shared memory is not valid: ";
    const auto refusal = [&](const std::function<void(frame_sample&)>& work) {
        frame_sample sample;
        work(sample);
        return descriptor_error(sample, sealed_memory(sample.area), STILLIMAGE_ERROR_RECORD);
    };
    const std::string outside = prefix + "it does not lie inside the shared area";
    EXPECT_EQ(refusal([](auto& s) { s.message.scanline_offset += 1; }), outside);
    EXPECT_EQ(refusal([](auto& s) { s.message.scanline_offset = UINT64_MAX; }), outside);
    EXPECT_EQ(refusal([](auto& s) { s.message.base_offset = UINT64_MAX; }), outside);
    EXPECT_EQ(refusal([](auto& s) { s.message.scanline_size = 65537; }), outside);
    EXPECT_EQ(refusal([](auto& s) { s.message.scanline_size = 0; }), prefix + "it is not whole");
    EXPECT_EQ(refusal([](auto& s) { s.put(0, 1, 0); }), prefix + "it is not whole");
    EXPECT_EQ(refusal([](auto& s) { s.message.width = 0; }), prefix + "the picture has no size");
    EXPECT_EQ(refusal([](auto& s) { s.message.height = 65536; }),
              prefix + "a side of the picture has more than 65535 pixels");
}

TEST(ClientFrame, SizeThatNoPictureHasIsRefusedBeforeItsMemoryIsExamined)
{
    for (const int32_t width : {65'536, 99}) {
        bool examined = false;
        const hooked_calls hook([&](const hooked_call& call) {
            examined = examined || call.command == F_GET_SEALS;
            return 0;
        });
        frame_sample sample;
        sample.message.width = width;
        descriptor_error(sample, sealed_memory(sample.area), STILLIMAGE_ERROR_RECORD);
        EXPECT_EQ(examined, width == 99);
    }
}

TEST(ClientFrame, ErrorsOfTheWorkerBecomeResults)
{
    const std::pair<error_code, stillimage_result> pairs[] = {
        {BAD_PACKET, STILLIMAGE_ERROR_PROTOCOL},
        {UNSUPPORTED, STILLIMAGE_ERROR_PROTOCOL},
        {VERSION_MISMATCH, STILLIMAGE_ERROR_REFUSED},
        {NOT_ALLOWED, STILLIMAGE_ERROR_REFUSED},
        {LIMIT, STILLIMAGE_ERROR_LIMIT},
        {SLOW_CLIENT, STILLIMAGE_ERROR_LIMIT},
        {NO_SUCH_FRAME, STILLIMAGE_ERROR_NO_FRAME},
        {NO_SUCH_REFERENCE, STILLIMAGE_ERROR_NO_FRAME},
        {NO_MEMORY, STILLIMAGE_ERROR_SYSTEM},
        {REFUSED_VALUE, STILLIMAGE_ERROR_VALUE},
        {NOT_STORED, STILLIMAGE_ERROR_NOT_STORED},
        {NOT_READY, STILLIMAGE_ERROR_NOT_READY},
        {GOING_DOWN, STILLIMAGE_ERROR_NO_WORKER}};
    for (const auto& [code, result] : pairs) {
        const auto answer = [code = code](fake_peer& peer) {
            peer.send(encode(peer.next(GET_FRAME).request, error{code, "reason"}));
            peer.await_end();
        };
        EXPECT_EQ(frame_error(answer, result), "the worker says: reason") << code;
    }
}

TEST(ClientFrame, FrameThatArrivesTooLateIsReleased)
{
    const frame_sample sample;
    uint64_t returned = 0;
    {
        const fake_worker worker([&](fake_peer& peer) {
            const int memory = sealed_memory(sample.area);
            peer.greet();
            const packet_header wanted = peer.next(GET_FRAME);
            const packet_header ping_packet = peer.next(PING); // sent after the time-out
            peer.send_with_descriptor(encode(wanted.request, sample.message), memory);
            close(memory);
            peer.send(encode_ping(ping_packet.request, PONG, {}));
            if (peer.next().type == RELEASE_FRAME) {
                returned = peer.request[packet_header_size];
            }
            peer.serve_frame(sample, -1); // the late answer already carried the descriptor
            peer.await_end();
        });
        const opened connection(worker.path());
        stillimage_frame* frame = nullptr;
        EXPECT_EQ(connection.get(&frame, silence_ms), STILLIMAGE_ERROR_TIMEOUT);
        EXPECT_EQ(stillimage_ping(connection.client, patience_ms), STILLIMAGE_OK);
        EXPECT_EQ(connection.get(&frame), STILLIMAGE_OK) << connection.error();
        stillimage_frame_release(frame);
    }
    EXPECT_EQ(returned, sample.message.reference);
}

TEST(ClientFrame, SizeIsSentOnceAndAgainAfterATimeout)
{
    const frame_sample sample;
    std::vector<uint16_t> types;
    {
        const fake_worker worker([&](fake_peer& peer) {
            peer.greet();
            for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
                types.push_back(header.type);
                if (types.size() > 1) { // the first is not answered
                    peer.send(header.type == GET_FRAME
                                  ? encode(header.request, error{NOT_READY, ""})
                                  : encode_empty(header.request, DONE));
                }
            }
        });
        const opened connection(worker.path());
        stillimage_frame* frame = nullptr;
        stillimage_client* client = connection.client;
        EXPECT_EQ(stillimage_get_frame(client, 0, 64, 32, silence_ms, &frame),
                  STILLIMAGE_ERROR_TIMEOUT);
        for (const int width : {0, -1, 64, 64}) {
            EXPECT_EQ(stillimage_get_frame(client, 0, width, 32, patience_ms, &frame),
                      STILLIMAGE_ERROR_NOT_READY);
        }
    }
    const std::vector<uint16_t> expected = {SET_OUTPUT_SIZE, SET_OUTPUT_SIZE, GET_FRAME, GET_FRAME,
                                            SET_OUTPUT_SIZE, GET_FRAME,       GET_FRAME};
    EXPECT_EQ(types, expected);
}

TEST(ClientFrame, WaitFlagIsSetUnlessTheTimeLimitIsZero)
{
    std::vector<int> flags;
    {
        const fake_worker worker([&](fake_peer& peer) {
            peer.greet();
            for (int i = 0; i < 2; ++i) {
                const packet_header header = peer.next(GET_FRAME);
                flags.push_back(peer.request[packet_header_size + 8]);
                peer.send(encode(header.request, error{NOT_READY, ""}));
            }
        });
        const opened connection(worker.path());
        stillimage_frame* frame = nullptr;
        connection.get(&frame, 0);
        connection.get(&frame);
    }
    EXPECT_EQ(flags, (std::vector<int>{0, 1}));
}

} // namespace
