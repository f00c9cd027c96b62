// The C++ header against fake workers: ownership, exceptions, spans and ranges.
#include <fcntl.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/stillimage_client.hpp"
#include "tests/support/fake_worker.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/client/served_picture.h"

namespace {

using namespace comm_protocol;
using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr auto patience = 30s; // never reached when the test passes
constexpr auto silence = 50ms;

// Answers every request. While `ready` is false, only GET_FRAME requests that wait get a frame.
std::function<void(fake_peer&)> serving(const frame_sample& sample, bool ready = true)
{
    return [&sample, ready](fake_peer& peer) {
        const std::string document = R"({"item":{"time duration":20,"time scale":[10,1]}})";
        const int memory = sealed_memory(sample.area);
        peer.greet();
        for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
            if (header.type == GET_FRAME && ready) {
                peer.send_with_descriptor(encode(header.request, sample.message), memory);
            } else if (header.type == GET_FRAME) {
                peer.send(encode(header.request, error{NOT_READY, "not yet"}));
            } else if (header.type == GET_STATUS) {
                peer.send(encode(header.request,
                                 status_part{static_cast<uint32_t>(document.size()), 0, document}));
            } else if (header.type == PING) {
                peer.send(encode_ping(header.request, PONG, {}));
            } else {
                peer.send(encode_empty(header.request, DONE));
            }
            if (header.type == SUBSCRIBE) {
                peer.send(encode(header.request, event{0, 100, ready ? 1 : 0, "begun"}));
            }
        }
        close(memory);
    };
}

// What `call` throws.
template <typename Call>
std::pair<stillimage_result, std::string> thrown_by(Call call)
{
    try {
        call();
    } catch (const stillimage::error& failure) {
        return {failure.result(), failure.what()};
    }
    return {STILLIMAGE_OK, ""};
}

TEST(ClientHpp, FrameIsReadPlaneByPlaneAndOutlivesItsClient)
{
    const served_picture served({.full_width = 50, .full_height = 30});
    const fake_worker worker(serving(served.sample));
    std::optional<stillimage::frame> frame;
    {
        auto client = stillimage::client::connect(worker.path(), patience);
        EXPECT_EQ(client.worker_pid(), 4321);
        EXPECT_GE(client.descriptor(), 0);
        frame = client.get_frame({.width = 10, .height = 10}, 0, patience);
    }
    EXPECT_EQ(frame->width(), 50U);
    EXPECT_EQ(frame->height(), 30U);
    EXPECT_EQ(frame->number(), 1U);
    EXPECT_FALSE(frame->provisional());
    EXPECT_EQ(frame->descriptor().buffer, 7U);
    const stillimage::plane_view u = frame->plane(STILLIMAGE_U);
    ASSERT_TRUE(u);
    EXPECT_FALSE(frame->plane(STILLIMAGE_A));
    EXPECT_EQ(u.width(), 25U);
    EXPECT_EQ(u.height(), 15U);
    EXPECT_EQ(u.bytes().size(), size_t{u.stride()} * 15);
    for (uint32_t y = 0; y < u.height(); ++y) {
        ASSERT_EQ(u.row(y).size(), 25U);
        for (uint32_t x = 0; x < u.width(); ++x) {
            ASSERT_EQ(u.row(y)[x], served.at(STILLIMAGE_U, x, y));
        }
    }
}

TEST(ClientHpp, FailuresAreThrownWithTheirMessage)
{
    const temporary_folder folder;
    const auto [result, reason] =
        thrown_by([&] { stillimage::client::connect(folder.path("nothing"), silence); });
    EXPECT_EQ(result, STILLIMAGE_ERROR_NO_WORKER);
    EXPECT_THAT(reason, HasSubstr("no worker serves at " + folder.path("nothing")));
    const fake_worker silent([](fake_peer& peer) {
        peer.greet();
        peer.await_end();
    });
    auto client = stillimage::client::connect(silent.path(), patience);
    EXPECT_EQ(
        thrown_by([&] { client.ping(silence); }),
        std::pair(STILLIMAGE_ERROR_TIMEOUT, std::string("the worker did not answer in time")));
    EXPECT_EQ(thrown_by([&] { client.get_frame({}, 0, silence); }).first, STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(thrown_by([] { stillimage::to_png(stillimage_picture{}); }),
              std::pair(STILLIMAGE_ERROR_ARGUMENT, std::string("bad argument")));
}

TEST(ClientHpp, NotReadyIsAValueNotAnException)
{
    const frame_sample sample;
    const fake_worker worker(serving(sample, false));
    auto client = stillimage::client::connect(worker.path(), patience);
    EXPECT_FALSE(client.try_get_frame());
    EXPECT_FALSE(client.wait_ready(silence));
    EXPECT_EQ(thrown_by([&] { client.get_frame({}, 0, patience); }),
              std::pair(STILLIMAGE_ERROR_NOT_READY, std::string("the worker says: not yet")));
}

TEST(ClientHpp, TryGetFrameReturnsAReadyFrame)
{
    const frame_sample sample;
    const fake_worker worker(serving(sample));
    auto client = stillimage::client::connect(worker.path(), patience);
    EXPECT_TRUE(client.wait_ready(patience));
    const std::optional<stillimage::frame> frame = client.try_get_frame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width(), sample.width);
}

TEST(ClientHpp, MissingFrameIsAnEmptyOptional)
{
    const fake_worker worker([](fake_peer& peer) {
        peer.greet();
        peer.send(encode(peer.next(GET_FRAME).request, error{NO_SUCH_FRAME, "none"}));
        peer.await_end();
    });
    auto client = stillimage::client::connect(worker.path(), patience);
    EXPECT_FALSE(client.try_get_frame());
}

TEST(ClientHpp, TimelineIsARange)
{
    const frame_sample sample;
    const fake_worker worker(serving(sample));
    auto client = stillimage::client::connect(worker.path(), patience);
    const stillimage::timeline timeline = client.get_timeline(patience);
    uint64_t whole = 0;
    for (const stillimage_timeline_entry& entry : timeline) {
        whole += entry.duration;
    }
    EXPECT_EQ(whole, 20U);
    EXPECT_EQ(timeline.size(), 1U);
    EXPECT_EQ(timeline[0].frame_number, 1U);
    EXPECT_EQ(timeline.duration(), 20U);
    EXPECT_EQ(timeline.scale_numerator(), 10U);
    EXPECT_EQ(timeline.scale_denominator(), 1U);
    EXPECT_EQ(timeline.time_of(20), 2s);
}

TEST(ClientHpp, HandlerIsCalledAndItsExceptionPropagates)
{
    const frame_sample sample;
    const fake_worker worker(serving(sample));
    auto client = stillimage::client::connect(worker.path(), patience);
    std::string heard;
    client.subscribe(
        STILLIMAGE_CHANGE_READY, [&](const stillimage_event& event) { heard += event.progress; },
        patience);
    client.ping(patience); // the event arrives before the answer
    EXPECT_EQ(heard, "begun");
    auto moved = std::move(client);
    moved.subscribe(
        STILLIMAGE_CHANGE_READY,
        [](const stillimage_event&) { throw std::string("from the handler"); }, patience);
    EXPECT_THROW(moved.ping(patience), std::string);
    EXPECT_NO_THROW(moved.ping(patience)); // it is thrown once only
    moved.unsubscribe(patience);
    moved.ping(patience);
    EXPECT_EQ(heard, "begun");
}

TEST(ClientHpp, HandlerThatSubscribesIsRefusedAndKept)
{
    const frame_sample sample;
    const fake_worker worker(serving(sample));
    auto client = stillimage::client::connect(worker.path(), patience);
    std::string heard;
    client.subscribe(
        STILLIMAGE_CHANGE_READY,
        [&client, &heard,
         name = std::string("a name that is too long for its place")](const stillimage_event&) {
            EXPECT_EQ(thrown_by([&] { client.subscribe(1, {}, patience); }).first,
                      STILLIMAGE_ERROR_ARGUMENT);
            heard = name;
        },
        patience);
    client.ping(patience);
    EXPECT_EQ(heard, "a name that is too long for its place");
}

TEST(ClientHpp, EachRequestReachesTheWorker)
{
    std::vector<uint16_t> types;
    {
        const fake_worker worker([&](fake_peer& peer) {
            peer.greet();
            for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
                types.push_back(header.type);
                peer.send(header.type == GET_STATUS
                              ? encode(header.request, status_part{2, 0, "{}"})
                              : encode_empty(header.request, DONE));
            }
        });
        auto client = stillimage::client::connect(worker.path(), patience);
        EXPECT_EQ(client.status(patience), "{}");
        client.set_metadata("aspect ratio", "16:9", patience);
        client.quit(patience);
        client.reconnect(patience);
        client.dispatch();
    }
    EXPECT_EQ(types, (std::vector<uint16_t>{GET_STATUS, SET_METADATA, EXIT}));
}

TEST(ClientHpp, ConversionsMatchTheLibrary)
{
    const served_picture served({.full_width = 9, .full_height = 4});
    const std::vector<uint8_t> rgb = stillimage::to_pixels(served.picture, STILLIMAGE_RGB24);
    std::vector<uint8_t> expected(9 * 4 * 3);
    stillimage_picture_to_pixels(&served.picture, STILLIMAGE_RGB24, 9, 4, expected.data(), 27);
    EXPECT_EQ(rgb, expected);
    EXPECT_EQ(stillimage::to_pixels(served.picture, STILLIMAGE_RGBA32, {3, 2}).size(), 24U);
    const std::vector<uint8_t> png = stillimage::to_png(served.picture);
    EXPECT_EQ(std::string(png.begin() + 1, png.begin() + 4), "PNG");
    EXPECT_EQ(stillimage::to_png(rgb, STILLIMAGE_RGB24, {9, 4}), png);
    EXPECT_EQ(thrown_by([&] {
                  stillimage::to_png(rgb, STILLIMAGE_RGBA32, {9, 4});
              }).first,
              STILLIMAGE_ERROR_ARGUMENT);
    const std::pair too_many(STILLIMAGE_ERROR_ARGUMENT,
                             std::string("no memory can hold so many pixels"));
    const stillimage::extent giant = {UINT32_MAX, UINT32_MAX};
    EXPECT_EQ(thrown_by([&] { stillimage::to_png(rgb, STILLIMAGE_RGB24, giant); }), too_many);
    EXPECT_EQ(thrown_by([&] { stillimage::to_pixels(served.picture, STILLIMAGE_RGBA32, giant); }),
              too_many);
    const temporary_folder folder;
    const int fd = open(folder.path("p").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    stillimage::write_png(served.picture, fd);
    close(fd);
    EXPECT_EQ(folder.read("p"), std::string(png.begin(), png.end()));
    const stillimage::y4m_stream stream(served.picture);
    EXPECT_TRUE(stream.fits(served.picture));
    EXPECT_THAT(stream.header(served.picture, 25), HasSubstr("F25:1 Ip"));
    EXPECT_EQ(stream.frame(served.picture).size(), 6U + 36 + 20);
}

TEST(ClientHpp, TimeLimitsOfAnyLengthAreAccepted)
{
    EXPECT_EQ(stillimage::detail::limit_ms(stillimage::forever), -1);
    EXPECT_EQ(stillimage::detail::limit_ms(0ms), 0);
    EXPECT_EQ(stillimage::detail::limit_ms(2s), 2000);
    EXPECT_EQ(stillimage::detail::limit_ms(24h * 1000), INT_MAX);
    EXPECT_EQ(stillimage::detail::limit_ms(stillimage::time_limit::min()), -1);
}

} // namespace
