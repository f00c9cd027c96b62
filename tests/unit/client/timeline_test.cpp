// The timeline walk, and the call that fetches a timeline from a worker.
#include <algorithm>
#include <numeric>
#include <random>

#include <gtest/gtest.h>

#include "client/timeline.h"
#include "tests/support/fake_worker.h"
#include "tests/unit/client/opened.h"

namespace {

using namespace comm_protocol;

// Frames shown for the given delays; counts the queries.
struct counted_frames {
    explicit counted_frames(const std::vector<uint64_t>& shown) : delays(shown), ends(shown)
    {
        std::partial_sum(ends.begin(), ends.end(), ends.begin());
    }
    uint64_t number_at(uint64_t moment)
    {
        ++queries;
        EXPECT_LT(moment, ends.back());
        const auto end = std::upper_bound(ends.begin(), ends.end(), moment);
        return static_cast<uint64_t>(end - ends.begin()) + 1;
    }
    void expect_found()
    {
        uint64_t frames = 0;
        uint64_t start = 0;
        const bool whole = walk_timeline(
            ends.back(), [&](uint64_t moment) { return number_at(moment); },
            [&](const stillimage_timeline_entry& entry) {
                EXPECT_EQ(entry.start, start);
                EXPECT_EQ(entry.duration, delays[frames]);
                EXPECT_EQ(entry.frame_number, ++frames);
                start += entry.duration;
                return true;
            });
        EXPECT_TRUE(whole);
        EXPECT_EQ(frames, delays.size());
    }

    std::vector<uint64_t> delays;
    std::vector<uint64_t> ends;
    uint64_t queries = 0;
};

TEST(ClientTimelineWalk, FindsAnyDelays)
{
    std::mt19937 random(1);
    for (int round = 0; round < 500 && !testing::Test::HasFailure(); ++round) {
        std::vector<uint64_t> delays(1 + random() % 12);
        for (uint64_t& delay : delays) {
            delay = 1 + random() % (round % 2 == 0 ? 5 : 5000);
        }
        counted_frames(delays).expect_found();
    }
}

TEST(ClientTimelineWalk, EqualDelaysCostThreeQueriesAFrame)
{
    counted_frames frames(std::vector<uint64_t>(1000, 10));
    frames.expect_found();
    EXPECT_LE(frames.queries, 3010U);
}

TEST(ClientTimelineWalk, MissingFrameEndsIt)
{
    int queries = 0;
    int entries = 0;
    EXPECT_FALSE(walk_timeline(
        100, [&](uint64_t) { return static_cast<uint64_t>(++queries > 10000); },
        [&](const stillimage_timeline_entry&) { return ++entries > 0; }));
    EXPECT_EQ(queries, 1);
    EXPECT_EQ(entries, 0);
}

TEST(ClientTimelineWalk, CallbackEndsIt)
{
    counted_frames frames({10, 10, 10});
    int entries = 0;
    EXPECT_FALSE(walk_timeline(
        30, [&](uint64_t moment) { return frames.number_at(moment); },
        [&](const stillimage_timeline_entry&) { return ++entries < 2; }));
    EXPECT_EQ(entries, 2);
}

TEST(ClientTimelineWalk, UnorderedFrameNumbersDoNotStallIt)
{
    std::mt19937 random(1);
    uint64_t queries = 0;
    int entries = 0;
    walk_timeline(
        UINT64_C(1) << 50,
        [&](uint64_t) -> uint64_t {
            ++queries;
            return 1 + random() % 2;
        },
        [&](const stillimage_timeline_entry& entry) {
            EXPECT_GE(entry.duration, 1U);
            return ++entries < 10'000;
        });
    EXPECT_LE(queries, 10'000U * 110);
}

TEST(ClientTimelineWalk, EndOfAFrameIsFoundFromAnyTimeWithAnyGuess)
{
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        std::vector<int> shown; // the frame at each unit
        for (int frame = 1; frame <= 12; ++frame) {
            shown.insert(shown.end(), 1 + random() % 40, frame);
        }
        for (size_t start = 0; start < shown.size(); ++start) {
            size_t end = start;
            while (end < shown.size() && shown[end] == shown[start]) {
                ++end;
            }
            const auto same = [&](uint64_t at) {
                EXPECT_LT(at, shown.size());
                return at < shown.size() && shown[at] == shown[start];
            };
            EXPECT_EQ(end_of_frame(start, random() % 50, shown.size(), same), end);
        }
    }
}

TEST(ClientTimelineWalk, CorrectGuessCostsTwoQueries)
{
    int asked = 0;
    const auto same = [&](uint64_t at) {
        ++asked;
        return at < 30;
    };
    EXPECT_EQ(end_of_frame(20, 10, 100, same), 30U);
    EXPECT_EQ(asked, 2);
}

// --- the status document -------------------------------------------------------------------------

TEST(ClientTimelineFacts, AreFoundAmongOtherValues)
{
    const char* document = R"({"process": {"item": {"time duration": 7}, "text": "\"}, {\\"},
        "list": [1, [2, {"a": "]"}], "item"], "item" : { "file": "a\"b", "time duration" : 360 ,
        "nothing": null, "time scale": [ 60000 , 2002 ] }, "last": true})";
    EXPECT_EQ(read_timeline_facts(document), (timeline_facts{360, 30000, 1001}));
    EXPECT_EQ(read_timeline_facts(R"({"item": {"time scale": [4294967295, 1]}})"),
              (timeline_facts{1, UINT32_MAX, 1}));
    EXPECT_EQ(read_timeline_facts(R"({"item": {"time scale": [4294967296, 1]}})"),
              (timeline_facts{1, 1, 1}));
    EXPECT_EQ(read_timeline_facts(R"({"item": {"time duration": 1000000000000001}})").duration, 1U);
}

TEST(ClientTimelineFacts, InvalidValuesCountAsOne)
{
    for (const char* text :
         {"", "{", "{}", R"({"item": {"time duration": 0, "time scale": [0, 0]}})",
          R"({"item": {"time duration": -5, "time scale": [100, 0]}})",
          R"({"item": {"time duration": 1e30, "time scale": "100"}})",
          R"({"item": {"time duration": null, "time scale": [1e9, 1]}})"}) {
        EXPECT_EQ(read_timeline_facts(text), timeline_facts()) << text;
    }
}

TEST(ClientTimelineFacts, EveryTruncationOfADocumentIsRead)
{
    const std::string document = R"({"a": "\"", "b": [{}, "]", -1.5e3], )"
                                 R"("item": {"time scale": [100, 1], "time duration": 42}})";
    for (size_t size = 0; size <= document.size(); ++size) {
        const std::vector<char> cut(document.begin(), document.begin() + static_cast<long>(size));
        const timeline_facts facts = read_timeline_facts({cut.data(), cut.size()});
        EXPECT_TRUE(facts.duration == 42 || facts.duration == 4 || facts.duration == 1) << size;
    }
    std::mt19937 random(7);
    for (int round = 0; round < 20'000; ++round) {
        std::string broken = document;
        for (int i = 0; i < 4; ++i) {
            broken[random() % broken.size()] = "{}[]\",: \\1"[random() % 10];
        }
        EXPECT_GE(read_timeline_facts(broken).duration, 1U);
    }
}

// --- the call ------------------------------------------------------------------------------------

// A worker whose frame at each time has the number `number_of(time)`. `held` counts the frames not
// released yet.
std::function<void(fake_peer&)> serving(const frame_sample& sample, const std::string& document,
                                        const std::function<uint64_t(uint64_t)>& number_of,
                                        int* held)
{
    return [&sample, document, number_of, held](fake_peer& peer) {
        peer.greet();
        const int memory = sealed_memory(sample.area);
        for (packet_header header = peer.next(); header.type != 0; header = peer.next()) {
            if (header.type == GET_FRAME) {
                get_frame wanted;
                decode(peer.request.data() + packet_header_size,
                       peer.request.size() - packet_header_size, &wanted);
                EXPECT_EQ(wanted.flags, get_frame_wait);
                frame message = sample.message;
                message.frame_number = number_of(wanted.time_position);
                const packet_bytes packet = encode(header.request, message);
                const bool first = wanted.time_position == 0;
                first ? peer.send_with_descriptor(packet, memory) : peer.send(packet);
                ++*held;
            } else if (header.type == GET_STATUS) {
                peer.send(encode(header.request,
                                 status_part{static_cast<uint32_t>(document.size()), 0, document}));
            } else {
                *held -= header.type == RELEASE_FRAME ? 1 : 0;
                peer.send(encode_empty(header.request, DONE));
            }
        }
        close(memory);
    };
}

constexpr const char* three_units_of_ten =
    R"({"item": {"time scale": [100, 1], "time duration": 30}})";

TEST(ClientTimeline, IsFetchedFromAWorker)
{
    const frame_sample sample;
    int held = 0;
    {
        const fake_worker worker(serving(
            sample, three_units_of_ten, [](uint64_t moment) { return moment < 20 ? 1U : 2U; },
            &held));
        const stillimage_timeline* timeline = nullptr;
        {
            const opened connection(worker.path());
            ASSERT_EQ(stillimage_get_timeline(connection.client, patience_ms, &timeline),
                      STILLIMAGE_OK)
                << connection.error();
        }
        EXPECT_EQ(timeline->scale_numerator, 100U);
        EXPECT_EQ(timeline->scale_denominator, 1U);
        EXPECT_EQ(timeline->duration, 30U);
        ASSERT_EQ(timeline->count, 2U);
        EXPECT_EQ(timeline->entries[0].start, 0U);
        EXPECT_EQ(timeline->entries[0].duration, 20U);
        EXPECT_EQ(timeline->entries[0].frame_number, 1U);
        EXPECT_EQ(timeline->entries[1].start, 20U);
        EXPECT_EQ(timeline->entries[1].duration, 10U);
        EXPECT_EQ(timeline->entries[1].frame_number, 2U);
        stillimage_timeline_free(timeline);
        stillimage_timeline_free(nullptr);
    }
    EXPECT_EQ(held, 0); // every frame was released
}

// The result of the call with a worker that numbers its frames with `number_of`.
stillimage_result result_for(const std::string& document,
                             const std::function<uint64_t(uint64_t)>& number_of, std::string* error)
{
    const frame_sample sample;
    int held = 0;
    const fake_worker worker(serving(sample, document, number_of, &held));
    const opened connection(worker.path());
    const stillimage_timeline* timeline = nullptr;
    const stillimage_result result =
        stillimage_get_timeline(connection.client, patience_ms, &timeline);
    EXPECT_EQ(timeline, nullptr);
    *error = connection.error();
    return result;
}

TEST(ClientTimeline, FrameWithoutNumberIsAProtocolError)
{
    std::string error;
    EXPECT_EQ(result_for(
                  three_units_of_ten, [](uint64_t moment) { return moment < 7 ? 1U : 0U; }, &error),
              STILLIMAGE_ERROR_PROTOCOL);
    EXPECT_EQ(error, "the worker sent a frame without a number");
}

TEST(ClientTimeline, MoreFramesThanTheLimitAreRefused)
{
    std::string error;
    EXPECT_EQ(result_for(R"({"item": {"time duration": 20001}})",
                         [](uint64_t moment) { return moment + 1; }, &error),
              STILLIMAGE_ERROR_LIMIT);
    EXPECT_EQ(error, "the timeline has more than 20000 frames");
}

TEST(ClientTimeline, TimeLimitAndBadArguments)
{
    const fake_worker worker([](fake_peer& peer) {
        peer.greet();
        peer.await_end();
    });
    const opened connection(worker.path());
    const stillimage_timeline* timeline = nullptr;
    EXPECT_EQ(stillimage_get_timeline(connection.client, silence_ms, &timeline),
              STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(stillimage_get_timeline(connection.client, silence_ms, nullptr),
              STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_get_timeline(nullptr, silence_ms, &timeline), STILLIMAGE_ERROR_ARGUMENT);
}

} // namespace
