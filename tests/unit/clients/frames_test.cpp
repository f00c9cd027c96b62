#include <sys/mman.h>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/run_state.h"
#include "platform/serving.h"
#include "platform/standalone/clients/frames.h"
#include "platform/standalone/comm/connection.h"
#include "tests/support/comm_fixture.h"
#include "tests/support/open_descriptors.h"

using namespace comm_protocol;
using plain_item::state;

namespace {

class ClientsFrames : public comm_fixture {
protected:
    ClientsFrames()
    {
        plain_item::make_ready(1);
        state.frames = 3;
    }

    static std::optional<received_packet> release(const packet_client& client, uint64_t reference)
    {
        return ask(client, encode(60, release_frame{reference}));
    }

    static vexa_client_context& only_context()
    {
        return *vexa_client_contexts.tracked.begin()->second.context;
    }

    static vexa_client_context& context(unsigned long id)
    {
        return *client_context_tracking::get_id(vexa_client_contexts, id)->context;
    }

    // The newest client takes everything that is not guaranteed to another.
    static void take_common_frames()
    {
        vexa_client_context& greedy = context(platform::connected_clients());
        for (size_t i = 0; i < guaranteed_references + platform::max_common_references; ++i) {
            greedy.allocate_video_reference(0, nullptr);
        }
    }
};

} // namespace

TEST_F(ClientsFrames, FrameCarriesEveryFieldOfThePicture)
{
    const packet_client client = greeted();
    const auto answer = ask(client, encode(4, get_frame{1, 0}));
    ASSERT_TRUE(answer.has_value());
    ASSERT_EQ(answer->header.type, FRAME);
    EXPECT_EQ(answer->header.request, 4U);
    const auto got = answer->as<frame>();
    EXPECT_EQ(got.flags, frame_has_descriptor);
    EXPECT_EQ(got.buffer, 7U);
    EXPECT_EQ(got.base_offset, 0U);
    EXPECT_EQ(got.area_size, plain_item::buffer_size);
    EXPECT_EQ(got.scanline_offset, 4096U);
    EXPECT_EQ(got.scanline_size, 197U);
    EXPECT_EQ(got.frame_number, 2U);
    EXPECT_EQ(got.width, 640);
    EXPECT_EQ(got.height, 480);
    EXPECT_EQ(got.aspect_numerator, 4);
    EXPECT_EQ(got.aspect_denominator, 3);
}

TEST_F(ClientsFrames, DescriptorIsSentOncePerConnectionAndIsReadOnly)
{
    const packet_client client = greeted();
    const auto first = ask(client, encode(4, get_frame{0, 0}));
    ASSERT_TRUE(first.has_value() && first->descriptor);
    struct stat file = {};
    ASSERT_EQ(fstat(first->descriptor.get(), &file), 0);
    EXPECT_EQ(file.st_size, static_cast<off_t>(plain_item::buffer_size));
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, first->descriptor.get(), 0),
              MAP_FAILED);
    const auto second = ask(client, encode(5, get_frame{1, 0}));
    ASSERT_TRUE(second.has_value());
    EXPECT_FALSE(second->descriptor);
    EXPECT_EQ(second->as<frame>().flags, 0U);
    const packet_client other = greeted();
    EXPECT_TRUE(ask(other, encode(4, get_frame{0, 0}))->descriptor);
}

TEST_F(ClientsFrames, WorkerKeepsNoDescriptorItSent)
{
    const size_t before = open_descriptors();
    for (int i = 0; i < 20; ++i) {
        packet_client client = greeted();
        ask_frame(client, 0);
        client.close();
        pump();
    }
    EXPECT_EQ(open_descriptors(), before + 3); // epoll, the listening socket and its folder
}

TEST_F(ClientsFrames, MissingDescriptorIsReportedAndRetried)
{
    const packet_client client = greeted();
    state.descriptor_fails = true;
    expect_error(ask(client, encode(4, get_frame{0, 0})), NO_MEMORY, 4,
                 "no descriptor for the frame buffer");
    EXPECT_EQ(state.live_frames, 0);
    state.descriptor_fails = false;
    const auto answer = ask(client, encode(5, get_frame{0, 0}));
    ASSERT_TRUE(answer.has_value());
    EXPECT_TRUE(answer->descriptor);
}

TEST_F(ClientsFrames, ProvisionalPictureIsMarked)
{
    plain_item::make_ready(-1);
    const packet_client client = greeted();
    EXPECT_EQ(ask_frame(client, 0).flags, frame_has_descriptor | frame_provisional);
    plain_item::make_ready(1);
    EXPECT_EQ(ask_frame(client, 0).flags, 0U);
}

TEST_F(ClientsFrames, FrameThatDoesNotExistIsRefused)
{
    const packet_client client = greeted();
    expect_error(ask(client, encode(4, get_frame{3, 0})), NO_SUCH_FRAME, 4, "no such frame");
    expect_error(ask(client, encode(4, get_frame{UINT64_MAX, get_frame_wait})), NO_SUCH_FRAME, 4,
                 "no such frame");
    EXPECT_EQ(state.live_frames, 0);
    EXPECT_FALSE(client.hung_up());
}

TEST_F(ClientsFrames, PictureThatIsNotReadyIsRefusedOrWaitedFor)
{
    vexa_ready = false;
    const packet_client client = greeted();
    expect_error(ask(client, encode(4, get_frame{0, 0})), NOT_READY, 4, "the picture is not ready");
    EXPECT_FALSE(ask(client, encode(5, get_frame{0, get_frame_wait})).has_value());
    EXPECT_EQ(ask(client, encode_ping(6, PING, {}))->header.type, PONG);
    expect_error(ask(client, encode(7, get_frame{0, 0})), NOT_READY, 7, "the picture is not ready");
    plain_item::make_ready(-1);
    pump();
    const auto answer = client.receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->header.type, FRAME);
    EXPECT_EQ(answer->header.request, 5U);
}

TEST_F(ClientsFrames, WaitingRequestsAreAnsweredInOrder)
{
    vexa_ready = false;
    const packet_client client = greeted();
    for (uint64_t i = 0; i < max_pending_requests; ++i) {
        ASSERT_FALSE(ask(client, encode(100 + i, get_frame{0, get_frame_wait})).has_value());
    }
    plain_item::make_ready(1);
    pump();
    for (uint64_t i = 0; i < max_pending_requests; ++i) {
        const auto answer = client.receive();
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(answer->header.request, 100 + i);
    }
}

TEST_F(ClientsFrames, TooManyWaitingRequestsAreRefused)
{
    vexa_ready = false;
    const packet_client client = greeted();
    for (uint64_t i = 0; i < max_pending_requests; ++i) {
        ASSERT_FALSE(ask(client, encode(100 + i, get_frame{0, get_frame_wait})).has_value());
    }
    expect_error(ask(client, encode(5, get_frame{0, get_frame_wait})), LIMIT, 5,
                 "too many pending requests");
    EXPECT_FALSE(client.hung_up());
}

TEST_F(ClientsFrames, WaitingTakesNoWorkUntilThePictureIsReady)
{
    vexa_ready = false;
    const packet_client client = greeted();
    ask(client, encode(5, get_frame{0, get_frame_wait}));
    EXPECT_EQ(idle_vexa_client_contexts(), 0);
    plain_item::make_ready(1);
    EXPECT_EQ(idle_vexa_client_contexts(), 1);
    EXPECT_EQ(idle_vexa_client_contexts(), 0);
    EXPECT_TRUE(client.receive().has_value());
}

TEST_F(ClientsFrames, RequestedSizeAppliesToLaterFrames)
{
    const packet_client client = greeted();
    ASSERT_TRUE(ask(client, encode(4, set_output_size{100, 100})).has_value());
    EXPECT_EQ(ask_frame(client, 0).scanline_offset, 5000U);
    const packet_client other = greeted();
    EXPECT_EQ(ask_frame(other, 0).scanline_offset, 4096U);
}

TEST_F(ClientsFrames, ReleasedFrameIsDeletedWithoutAWarning)
{
    const packet_client client = greeted();
    const uint64_t reference = ask_frame(client, 0).reference;
    EXPECT_EQ(state.live_frames, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(release(client, reference)->header.type, DONE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(state.live_frames, 0);
    expect_error(release(client, reference), NO_SUCH_REFERENCE, 60,
                 "not a reference of this connection");
    EXPECT_FALSE(client.hung_up());
}

TEST_F(ClientsFrames, DisconnectingReleasesEverythingWithoutAWarning)
{
    vexa_ready = false;
    packet_client client = greeted();
    ask(client, encode(4, get_frame{0, get_frame_wait}));
    plain_item::make_ready(1);
    for (int i = 0; i < 10; ++i) {
        ask(client, encode(5, get_frame{0, 0}));
    }
    EXPECT_GT(state.live_frames, 9);
    testing::internal::CaptureStderr();
    client.close();
    pump();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(state.live_frames, 0);
    EXPECT_EQ(state.live_contexts, 0);
}

TEST_F(ClientsFrames, FrameHeldElsewhereIsDeletedWithAWarning)
{
    packet_client client = greeted();
    const uint64_t reference = ask_frame(client, 0).reference;
    long long error = 0;
    only_context().get_video_reference(reference)->get_frame(&error)->refcount += 2;
    testing::internal::CaptureStderr();
    client.close();
    pump();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "WARNING: deleting video reference to frame with refcount=2\n");
}

TEST_F(ClientsFrames, ReferencesOfAnotherClientAreUnknown)
{
    const packet_client first = greeted();
    const packet_client second = greeted();
    const uint64_t of_first = ask_frame(first, 0).reference;
    const uint64_t of_second = ask_frame(second, 0).reference;
    EXPECT_NE(of_first, of_second);
    expect_error(release(first, of_second), NO_SUCH_REFERENCE, 60,
                 "not a reference of this connection");
    expect_error(release(second, of_first), NO_SUCH_REFERENCE, 60,
                 "not a reference of this connection");
    EXPECT_EQ(state.live_frames, 2);
    EXPECT_EQ(release(first, of_first)->header.type, DONE);
    EXPECT_EQ(release(second, of_second)->header.type, DONE);
}

TEST_F(ClientsFrames, TooManyHeldFramesAreRefused)
{
    const packet_client client = greeted();
    const uint64_t first = ask_frame(client, 0).reference;
    for (size_t i = 1; i < max_held_references; ++i) {
        ask_frame(client, 0);
    }
    expect_error(ask(client, encode(4, get_frame{0, 0})), LIMIT, 4, "too many frames held");
    EXPECT_EQ(state.live_frames, static_cast<int>(max_held_references));
    EXPECT_EQ(release(client, first)->header.type, DONE);
    ask_frame(client, 0);
}

TEST_F(ClientsFrames, FramesOfAllClientsTogetherAreLimited)
{
    const packet_client greedy = greeted();
    take_common_frames();
    const packet_client other = greeted();
    for (size_t i = 0; i < guaranteed_references; ++i) {
        ask_frame(other, 0);
    }
    expect_error(ask(other, encode(4, get_frame{0, 0})), LIMIT, 4, "too many frames held");
    context(1).expire_all_references();
    ask_frame(other, 0);
}

// A client that has already used its part gets it back by releasing it.
TEST_F(ClientsFrames, GuaranteedFramesAreNeverTakenByOthers)
{
    const packet_client early = greeted();
    uint64_t held = 0;
    for (size_t i = 0; i < guaranteed_references; ++i) {
        held = ask_frame(early, 0).reference;
    }
    const packet_client greedy = greeted();
    take_common_frames();
    EXPECT_EQ(release(early, held)->header.type, DONE);
    expect_error(ask(greedy, encode(4, get_frame{0, 0})), LIMIT, 4, "too many frames held");
    ask_frame(early, 0);
    expect_error(ask(early, encode(4, get_frame{0, 0})), LIMIT, 4, "too many frames held");
}

// However often frames are taken and given back, the count of the common ones is right.
TEST_F(ClientsFrames, CommonFramesComeBackCompletely)
{
    const packet_client first = greeted();
    const packet_client second = greeted();
    for (int round = 0; round < 3; ++round) {
        for (const unsigned long id : {1UL, 2UL}) {
            for (size_t i = 0; i < guaranteed_references + 7; ++i) {
                context(id).allocate_video_reference(0, nullptr);
            }
        }
        EXPECT_EQ(platform::common_references(), 14U);
        context(1).expire_all_references();
        EXPECT_EQ(platform::common_references(), 7U);
        context(2).expire_all_references();
        EXPECT_EQ(platform::common_references(), 0U);
    }
}

TEST_F(ClientsFrames, FailingReferenceFactoryIsReportedAsLackOfMemory)
{
    const packet_client client = greeted();
    state.frames_fail = true;
    expect_error(ask(client, encode(4, get_frame{0, 0})), NO_MEMORY, 4,
                 "no memory for a frame reference");
    EXPECT_FALSE(client.hung_up());
    vexa_client_contexts.new_video_reference = nullptr;
    expect_error(ask(client, encode(4, get_frame{0, 0})), NO_MEMORY, 4,
                 "no memory for a frame reference");
}

TEST_F(ClientsFrames, ExceptionInTheFactoryOnlyDropsTheClient)
{
    const packet_client client = greeted();
    const packet_client other = greeted();
    state.factory_throws = true;
    ASSERT_TRUE(client.send(encode(4, get_frame{0, 0})));
    pump();
    state.factory_throws = false;
    expect_error(client.receive(), NO_MEMORY, 0, "out of memory");
    EXPECT_TRUE(client.hung_up());
    ask_frame(other, 0);
}

TEST_F(ClientsFrames, ClientKilledDuringARequestReleasesEverything)
{
    for (int rounds = 0; rounds < 8; ++rounds) {
        packet_client client = greeted();
        ASSERT_TRUE(client.send(encode(4, get_frame{0, 0})));
        ASSERT_TRUE(client.send(encode(5, get_frame{0, 0})));
        for (int i = 0; i < rounds; ++i) {
            vexa_comm_server->next_look_us = 0;
            (i % 2 == 0 ? idle_vexa_server_comm : idle_vexa_client_contexts)();
        }
        client.close();
        pump();
        EXPECT_EQ(state.live_frames, 0) << rounds;
        EXPECT_EQ(platform::connected_clients(), 0U) << rounds;
    }
}

// A reference whose frame request disconnects its own client.
class leaving_reference final : public vexa_video_frame_reference {
public:
    vexa_video_frame* load_frame(long long* /*error*/) override
    {
        platform::leave(*vexa_client_contexts.tracked.at(context_id).client);
        idle_vexa_server_comm(); // a nested round does nothing
        idle_vexa_client_contexts();
        close_vexa_client_contexts();
        return nullptr;
    }
};

TEST_F(ClientsFrames, ClientMayDisconnectInsideItsOwnCallback)
{
    vexa_client_contexts.new_video_reference = [](vexa_client_context*) {
        return static_cast<vexa_video_frame_reference*>(new leaving_reference);
    };
    const packet_client client = greeted();
    ASSERT_TRUE(client.send(encode(4, get_frame{0, 0})));
    pump();
    EXPECT_TRUE(client.hung_up());
    EXPECT_EQ(platform::connected_clients(), 0U);
}

TEST_F(ClientsFrames, OldReferencesExpireByAge)
{
    const packet_client client = greeted();
    ask_frame(client, 0);
    only_context().expire_old_video_references(3'600'000'000);
    EXPECT_EQ(state.live_frames, 1);
    only_context().expire_old_video_references(0);
    EXPECT_EQ(state.live_frames, 0);
}

TEST_F(ClientsFrames, BaseClassesHaveNoSoundAndNoRealTime)
{
    const packet_client client = greeted();
    vexa_client_context& context = only_context();
    EXPECT_EQ(context.allocate_audio_reference(0, 1), nullptr);
    EXPECT_EQ(context.get_audio_reference(1), nullptr);
    EXPECT_EQ(context.do_one_audio_request(), 0);
    context.delete_audio_reference(1);
    context.expire_old_audio_references(0);
    context.check_realtime(0);
    unsigned long long number = 5;
    long long offset = 5;
    EXPECT_EQ(context.realtime_frame_range(number, number, offset, number, number, number), 0);
}

TEST_F(ClientsFrames, BaseReferenceLoadsNothing)
{
    vexa_video_frame_reference base;
    base.time_position = 4;
    long long error = 0;
    EXPECT_EQ(base.map_frame(&error), 4U);
    EXPECT_EQ(base.get_frame(&error), nullptr);
    EXPECT_EQ(base.addref_frame(1, &error), -1);
    EXPECT_EQ(base.release_frame(), 0);
    EXPECT_EQ(base.load_video_and_return_descriptor(&error), -1);
    EXPECT_EQ(base.examine_request(nullptr), 0);
    EXPECT_EQ(error, 0);
}

TEST_F(ClientsFrames, ReferenceReturnsADescriptorOfItsBuffer)
{
    const packet_client client = greeted();
    const uint64_t id = ask_frame(client, 0).reference;
    long long error = 0;
    const unique_fd descriptor(
        only_context().get_video_reference(id)->load_video_and_return_descriptor(&error));
    EXPECT_TRUE(descriptor);
}

TEST_F(ClientsFrames, ContextWithoutARecordAnswersNothing)
{
    vexa_client_context stray(987654321);
    EXPECT_EQ(stray.idle(), 0);
    EXPECT_EQ(stray.get_video_reference(1), nullptr);
    EXPECT_EQ(stray.allocate_video_reference(0, nullptr), nullptr);
    stray.delete_video_reference(1);
    stray.expire_all_references();
    stray.free_resources();
    stray.cancel_pending_requests_for_connection(1);
    comm_socket_v4_packet packet{encode(1, subscribe{1}), {}};
    EXPECT_EQ(stray.on_json_cun(&packet), -1);
}
