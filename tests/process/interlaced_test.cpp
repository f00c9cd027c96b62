// An interlaced picture as clients of the real worker see it: coarse after the first pass, then
// refined in place. The worker is stopped while a test compares the shared planes.
#include <algorithm>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/packet_client.h"
#include "tests/support/png_samples.h"
#include "tests/support/png_writer.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"
#include "tests/unit/decode/adam7_literal.h"
#include "tests/unit/decode/adam7_pictures.h"

using testing::HasSubstr;

namespace {

using bytes = std::vector<unsigned char>;

// The planes after a row of a pass.
struct drawn_state {
    int pass;           // of that row, 0 to 6
    bool pass_complete; // it was the last row of the pass
    adam7_planes planes;
};

std::vector<drawn_state> states_of(const bytes& file)
{
    adam7_literal literal(read_png_samples(file), 0);
    std::vector<drawn_state> states;
    while (literal.pass() < 7) {
        const int pass = literal.pass();
        literal.draw_row();
        states.push_back({pass, literal.pass() != pass, literal.planes()});
    }
    return states;
}

bool shows(const stillimage_picture& picture, const drawn_state& state)
{
    for (size_t i = 0; i < STILLIMAGE_PLANES; ++i) {
        const unsigned char* plane = picture.plane[i];
        if (plane != nullptr &&
            !std::equal(state.planes[i].begin(), state.planes[i].end(), plane)) {
            return false;
        }
    }
    return true;
}

bytes samples_of(const stillimage_picture& picture)
{
    const unsigned char* first = picture.plane[STILLIMAGE_Y];
    return {first, first + size_t{picture.stride[STILLIMAGE_Y]} * picture.height};
}

class Interlaced : public testing::Test {
protected:
    static constexpr uint32_t width = 128;
    static constexpr uint32_t height = 64;

    // Starts a worker on `file` with --slow-decode.
    void serve(const bytes& file, const std::vector<std::string>& environment = {})
    {
        const std::string path = home.path("interlaced.png");
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(file.data()),
                   static_cast<std::streamsize>(file.size()));
        std::vector<std::string> switches = worker::may_be_inspected;
        switches.emplace_back("--slow-decode");
        served = std::make_unique<worker>(home, path, switches, environment);
    }

    // With STOPPING_PAUSES: lets the worker run until it stops again. False when it has ended.
    bool runs_to_next_pause() const
    {
        served->send(SIGCONT);
        return eventually([this] { return !served->is_running() || served->wait_stopped(0); }) &&
               served->is_running();
    }

    static bool has_received_frame(const packet_client& client)
    {
        while (const std::optional<received_packet> packet = client.receive()) {
            if (packet->header.type == comm_protocol::FRAME) {
                return true;
            }
        }
        return false;
    }

    char state_of_worker() const
    {
        std::ifstream stat("/proc/" + std::to_string(served->pid()) + "/stat");
        std::string number;
        std::string name;
        char state = ' ';
        stat >> number >> name >> state;
        return state;
    }

    template <typename Look>
    void while_stopped(Look look) const
    {
        served->send(SIGSTOP);
        EXPECT_TRUE(eventually([this] { return state_of_worker() == 'T'; }));
        look();
        served->send(SIGCONT);
    }

    size_t shared_mappings() const
    {
        std::ifstream maps("/proc/" + std::to_string(served->pid()) + "/maps");
        size_t count = 0;
        for (std::string line; std::getline(maps, line);) {
            count += line.find("rw-s") != std::string::npos ? 1 : 0;
        }
        return count;
    }

    bool is_ready() const { return served->printed().find("[final]") != std::string::npos; }

    worker_home home;
    std::unique_ptr<worker> served;
};

TEST_F(Interlaced, WaitingClientGetsTheCoarsePictureAndSeesItSharpen)
{
    const bytes file = write_png(adam7_tests::random_picture(width, height, {2, 8}));
    const std::vector<drawn_state> states = states_of(file);
    serve(file);
    const held_client client = connect_to(served->socket());
    const held_frame frame = take_frame(client);
    ASSERT_NE(frame, nullptr);
    const stillimage_picture& picture = *stillimage_frame_picture(frame.get());
    EXPECT_EQ(picture.width, width);
    EXPECT_EQ(picture.provisional, 1);
    const size_t mappings = shared_mappings();
    size_t at = height / 8 - 1; // the last row of the first pass
    std::vector<int> passes_seen;
    std::vector<int> complete_passes_seen;
    while (!is_ready() && !HasFatalFailure()) {
        while_stopped([&] {
            size_t now = at;
            while (now < states.size() && !shows(picture, states[now])) {
                ++now;
            }
            // There is no match when the worker stopped in the middle of a row; try again later.
            if (now < states.size()) {
                at = now;
                passes_seen.push_back(states[at].pass);
                if (states[at].pass_complete) {
                    complete_passes_seen.push_back(states[at].pass);
                }
            }
        });
        EXPECT_EQ(shared_mappings(), mappings);
        pause_ms(15);
    }
    EXPECT_TRUE(shows(picture, states.back()));
    // The mipmaps after these passes take a second each, so these states cannot be missed.
    EXPECT_THAT(complete_passes_seen, testing::IsSupersetOf({0, 2}));
    EXPECT_GT(passes_seen.size(), 7U);
    EXPECT_THAT(passes_seen, testing::Contains(testing::AllOf(testing::Gt(0), testing::Lt(6))));
    const held_frame last = take_frame(client);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(stillimage_frame_picture(last.get())->provisional, 0);
    EXPECT_TRUE(shows(*stillimage_frame_picture(last.get()), states.back()));
}

TEST_F(Interlaced, LevelsAreRebuiltAfterPassesOneThreeAndSeven)
{
    const bytes file = write_png(adam7_tests::random_picture(width, height, {2, 8}));
    const std::vector<drawn_state> states = states_of(file);
    serve(file);
    const held_client client = connect_to(served->socket());
    const held_frame frame = take_frame(client);
    ASSERT_NE(frame, nullptr);
    const stillimage_picture& picture = *stillimage_frame_picture(frame.get());
    // The level's samples after the rebuilds that follow passes 1, 3 and 7.
    std::vector<bytes> seen[3];
    held_frame level;
    while (!is_ready() && !HasFatalFailure()) {
        if (level == nullptr) {
            level = take_frame(client, 0, width / 2, height / 2);
            if (stillimage_frame_picture(level.get())->width != width / 2) {
                level = nullptr; // the levels do not exist yet
            }
            continue;
        }
        while_stopped([&] {
            for (size_t i = 0; i < states.size(); ++i) {
                const bool before_third = states[i].pass == 1 || states[i].pass == 2;
                const bool rebuilding =
                    states[i].pass_complete && (states[i].pass == 2 || states[i].pass == 6);
                if (states[i].pass > 0 && !rebuilding && shows(picture, states[i])) {
                    seen[before_third ? 0 : 1].push_back(
                        samples_of(*stillimage_frame_picture(level.get())));
                }
            }
        });
        pause_ms(15);
    }
    ASSERT_NE(level, nullptr);
    seen[2].push_back(samples_of(*stillimage_frame_picture(level.get())));
    for (const std::vector<bytes>& stage : seen) {
        ASSERT_FALSE(stage.empty());
        EXPECT_THAT(stage, testing::Each(stage.front()));
    }
    EXPECT_NE(seen[0].front(), seen[1].front());
    EXPECT_NE(seen[1].front(), seen[2].front());
    EXPECT_NE(seen[0].front(), seen[2].front());
}

TEST_F(Interlaced, AlphaIsDroppedWhileAClientReads)
{
    const bytes file = write_png(adam7_tests::rgba_picture(128, 128, 255, 0));
    const std::vector<drawn_state> states = states_of(file);
    serve(file);
    const held_client client = connect_to(served->socket());
    const held_frame first = take_frame(client);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(stillimage_frame_picture(first.get())->provisional, 1);
    bool dropped = false;
    while (!is_ready() && !HasFatalFailure()) {
        const held_frame frame = take_frame(client);
        ASSERT_NE(frame, nullptr);
        const bool has_alpha =
            stillimage_frame_picture(frame.get())->plane[STILLIMAGE_A] != nullptr;
        EXPECT_FALSE(has_alpha && dropped);
        dropped = !has_alpha;
        pause_ms(5);
    }
    EXPECT_TRUE(dropped);
    EXPECT_THAT(served->printed(),
                HasSubstr("Image has opaque alpha channel. Disabling alpha channel.\n"));
    // The planes of the first frame are completed all the same; its alpha plane stays as it was
    // after the first pass.
    EXPECT_TRUE(shows(*stillimage_frame_picture(first.get()), states.back()));
    EXPECT_TRUE(std::ranges::all_of(states.back().planes[STILLIMAGE_A],
                                    [](unsigned char sample) { return sample == 255; }));
    const held_frame last = take_frame(client);
    EXPECT_EQ(stillimage_frame_picture(last.get())->plane[STILLIMAGE_A], nullptr);
}

// The worker stops at each of its pauses, so the test counts them and does not depend on time.
TEST_F(Interlaced, SignalAfterTheFirstPassEndsTheWorkerSoon)
{
    serve(write_png(adam7_tests::random_picture(width, height, {6, 8})),
          {"LD_PRELOAD=" STOPPING_PAUSES, "ASAN_OPTIONS=verify_asan_link_order=0"});
    ASSERT_TRUE(served->wait_stopped());
    const packet_client client(served->socket());
    ASSERT_TRUE(client.send(comm_protocol::encode(1, comm_protocol::hello())));
    ASSERT_TRUE(client.send(
        comm_protocol::encode(2, comm_protocol::get_frame{0, comm_protocol::get_frame_wait})));
    int pauses = 0;
    while (!has_received_frame(client)) {
        ASSERT_LT(++pauses, 1000);
        ASSERT_TRUE(runs_to_next_pause());
    }
    EXPECT_FALSE(is_ready());
    served->send(SIGTERM);
    pauses = 0;
    while (runs_to_next_pause()) {
        ++pauses;
    }
    EXPECT_EQ(served->wait_end(), 0);
    EXPECT_LE(pauses, 2); // more than a hundred rows were still to come
    EXPECT_TRUE(home.sockets().empty());
}

} // namespace
