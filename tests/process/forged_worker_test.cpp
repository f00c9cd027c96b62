// The client library and stillimage-client with a hostile worker. Whatever it sends: no call harms
// the client, what is shown can be read, nothing leaks, and nothing but text reaches a terminal.
#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/forged_worker.h"
#include "tests/support/open_descriptors.h"
#include "tests/support/printable_text.h"
#include "tests/support/readable_memory.h"
#include "tests/support/worker.h"

namespace {

constexpr int patience_ms = 10'000; // never reached
constexpr int silence_ms = 40;      // for what is never answered

void expect_usable(const stillimage_frame* frame)
{
    const stillimage_picture& picture = *stillimage_frame_picture(frame);
    const stillimage_descriptor_info& info = *stillimage_frame_descriptor(frame);
    EXPECT_TRUE(is_readable(info.area, info.area_size));
    EXPECT_TRUE(is_readable(info.scanline, info.scanline_size));
    EXPECT_LT(info.area_size, UINT64_C(1) << 32);
    for (const uint32_t side :
         {picture.width, picture.height, picture.full_width, picture.full_height}) {
        EXPECT_GE(side, 1U);
        EXPECT_LE(side, 65'535U);
    }
    for (int plane = 0; plane < STILLIMAGE_PLANES; ++plane) {
        const uint64_t size = uint64_t{picture.stride[plane]} * picture.plane_height[plane];
        if (picture.plane[plane] != nullptr) {
            EXPECT_GE(picture.plane[plane], info.area);
            EXPECT_LE(picture.plane[plane] + size, info.area + info.area_size);
            EXPECT_GE(picture.stride[plane], picture.plane_width[plane]);
        }
    }
    uint8_t* file = nullptr;
    size_t size = 0;
    EXPECT_EQ(stillimage_picture_to_png(&picture, &file, &size), STILLIMAGE_OK);
    stillimage_free(file);
}

class ForgedWorker : public testing::TestWithParam<lie> {
protected:
    int limit_ms() const { return GetParam().silent ? silence_ms : patience_ms; }

    const fake_worker worker{[](fake_peer& peer) { serve_lies(peer, GetParam()); }};
};

class ForgedWorkerAndLibrary : public ForgedWorker {
protected:
    void make_calls(stillimage_client* client) const
    {
        get_frames(client);
        read_texts(client);
        const stillimage_timeline* timeline = nullptr;
        if (stillimage_get_timeline(client, limit_ms(), &timeline) == STILLIMAGE_OK) {
            EXPECT_GE(timeline->count, 1U);
        }
        stillimage_timeline_free(timeline);
        expect_printable_error(client);
        stillimage_set_metadata(client, "aspect ratio", "4:3", limit_ms());
        expect_printable_error(client);
        stillimage_ping(client, limit_ms());
        stillimage_dispatch(client, 0);
    }

    void get_frames(stillimage_client* client) const
    {
        stillimage_frame* frames[3] = {};
        for (stillimage_frame*& frame : frames) {
            const stillimage_result result =
                stillimage_get_frame(client, 0, 64, 64, limit_ms(), &frame);
            EXPECT_EQ(result == STILLIMAGE_OK, frame != nullptr);
            EXPECT_TRUE(frame == nullptr || GetParam().shows_frames);
            expect_printable_error(client);
            if (frame != nullptr) {
                expect_usable(frame);
            }
        }
        for (stillimage_frame* frame : frames) {
            stillimage_frame_release(frame);
        }
    }

    void read_texts(stillimage_client* client) const
    {
        char* json = nullptr;
        stillimage_get_status(client, limit_ms(), &json);
        stillimage_free(json);
        const auto ignore = [](void*, const stillimage_event*) {};
        stillimage_subscribe(client, UINT_MAX, ignore, nullptr, limit_ms());
        expect_printable_error(client);
        stillimage_wait_ready(client, 0, limit_ms());
    }

    static void expect_printable_error(const stillimage_client* client)
    {
        const std::string_view error = stillimage_last_error(client);
        EXPECT_TRUE(is_printable_text(error) && error.find('\n') == std::string_view::npos);
        EXPECT_LE(error.size(), 8192U);
    }
};

TEST_P(ForgedWorkerAndLibrary, IsRefusedOrHarmless)
{
    const size_t descriptors = open_descriptors();
    for (int round = 0; round < 2; ++round) {
        stillimage_client* client = nullptr;
        const stillimage_result result =
            stillimage_connect(worker.path().c_str(), limit_ms(), &client);
        expect_printable_error(client);
        if (result == STILLIMAGE_OK) {
            make_calls(client);
        }
        stillimage_reconnect(client, limit_ms());
        stillimage_close(client);
    }
    // The worker's own, which end with its connections.
    EXPECT_TRUE(eventually([&] { return open_descriptors() == descriptors; }));
    EXPECT_TRUE(eventually([] { return mappings_of_memory_files() == 0; }));
}

class ForgedWorkerAndTool : public ForgedWorker {
protected:
    struct started_call {
        std::string name;
        bool any_output;
        std::unique_ptr<started_client> client;
    };

    void start(const std::vector<std::string>& call, bool any_output = false)
    {
        std::vector<std::string> words = {worker.path()};
        words.insert(words.end(), call.begin(), call.end());
        words.insert(words.end(), {"--timeout", GetParam().silent ? "0.04" : "10"});
        calls.push_back({call[0], any_output, std::make_unique<started_client>(home, words)});
    }

    static void expect_harmless(const started_call& call)
    {
        const int status = call.client->wait_end();
        const std::string messages = call.client->messages();
        EXPECT_GE(status, 0) << call.name;
        EXPECT_LE(status, 5) << call.name;
        EXPECT_TRUE(is_printable_text(messages)) << call.name << ": " << messages;
        EXPECT_EQ(messages.empty(), status == 0) << call.name << ": " << messages;
        EXPECT_TRUE(call.any_output || is_printable_text(call.client->printed())) << call.name;
    }

    const worker_home home;
    std::vector<started_call> calls;
};

// The calls run at the same time; the worker serves one after the other.
TEST_P(ForgedWorkerAndTool, EndsEachCallWithAStatusAndPrintableText)
{
    start({"wait"});
    start({"status"}, true); // unchanged, since it goes to a file
    start({"frame"});
    start({"save", home.path("a.png")});
    start({"dump", home.path("d")});
    start({"play", "--loop", "1", "--no-pace"}, true);
    start({"sheet", home.path("s.png")});
    start({"set", "aspect ratio", "4:3"});
    start({"quit"});
    for (const started_call& call : calls) {
        expect_harmless(call);
    }
    const bool saved = std::filesystem::exists(home.path("a.png"));
    EXPECT_TRUE(!saved || GetParam().shows_frames);
    EXPECT_TRUE(saved || GetParam().name != honest_name);
}

TEST(ToolAndArguments, WrongUsageIsPrintedWithoutControlCharacters)
{
    const worker_home home;
    started_client client(home, {"socket", "save", "--size", "\x1B[2J\xC2\x9B", "a.png"});
    EXPECT_EQ(client.wait_end(), 2);
    EXPECT_TRUE(is_printable_text(client.messages())) << client.messages();
    EXPECT_NE(client.messages().find("\\x1B[2J\\xC2\\x9B"), std::string::npos);
}

std::string name_of(const testing::TestParamInfo<lie>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Lies, ForgedWorkerAndLibrary, testing::ValuesIn(all_lies()), name_of);
INSTANTIATE_TEST_SUITE_P(Lies, ForgedWorkerAndTool, testing::ValuesIn(all_lies()), name_of);

} // namespace
