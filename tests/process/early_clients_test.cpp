// Clients that connect before the picture is examined: the program's stages on the stand-alone
// platform, with rounds of serving clients in between. Every request is answered, and requests and
// settings made by then take effect when the picture is served.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bin/quickidle.h"
#include "bin/vexa_stillimage.h"
#include "platform/clients.h"
#include "platform/serving.h"
#include "platform/settings.h"
#include "tests/support/child_process.h"
#include "tests/support/packet_client.h"
#include "tests/support/refused_calls.h"
#include "tests/support/temporary_folder.h"

using namespace comm_protocol;

namespace {

const char* const pictures[] = {"jpeg/peacock-420.jpg", "png/basn2c08.png", "tiff/rgb-lzw.tiff",
                                "gif/animated-varying-delays.gif", "webp/lossy-bricks.webp"};

class EarlyClients : public testing::Test {
protected:
    EarlyClients()
    {
        setenv("XDG_RUNTIME_DIR", folder.path("run").c_str(), 1);
        unsetenv("NOTIFY_SOCKET");
    }

    // In a child process: starts up on `picture`, calls `early` with the client's connection, does
    // the rest of the run with at most one round of serving, then calls `late`. 0 on success.
    template <typename Early, typename Late>
    int run(const std::string& picture, Early early, Late late)
    {
        return run_in_child([&] {
            std::vector<std::string> words = {"stillimage",
                                              "--file",
                                              picture,
                                              "--sock",
                                              folder.path("s.sock"),
                                              "--metadir",
                                              folder.path("meta"),
                                              "--oneshot"};
            std::vector<char*> arguments;
            for (std::string& word : words) {
                arguments.push_back(word.data());
            }
            arguments.push_back(nullptr);
            // The clients of these tests are in the same process, which therefore has to be able to
            // connect.
            EXPECT_TRUE(refuse_calls({"seccomp", set_seccomp_call}));
            if (start_up(static_cast<int>(words.size()), arguments.data()) != go_on) {
                return 2;
            }
            const packet_client client(folder.path("s.sock"));
            early(client);
            const int status = run_sequence();
            late(client);
            EXPECT_FALSE(folder.has("s.sock"));
            return HasFailure() ? 1 : status;
        });
    }

    static void pump()
    {
        for (int i = 0; i < 20; ++i) {
            open_gate();
            quickidle_comm();
        }
    }

    // Lets the server accept connections and requests in the next round.
    static void open_gate() { comm_socket_v4_server_from_client_readable(vexa_comm_server, 0); }

    static std::optional<received_packet> ask(const packet_client& client,
                                              const packet_bytes& request)
    {
        EXPECT_TRUE(client.send(request));
        pump();
        return client.receive();
    }

    static packet_type type_of(const std::optional<received_packet>& packet)
    {
        return packet.has_value() ? static_cast<packet_type>(packet->header.type) : packet_type{};
    }

    // The answer to this request among the packets received so far; other packets are dropped.
    static std::optional<received_packet> answer_to(const packet_client& client, uint64_t request)
    {
        for (auto packet = client.receive(); packet.has_value(); packet = client.receive()) {
            if (packet->header.request == request) {
                return packet;
            }
        }
        return std::nullopt;
    }

    temporary_folder folder;
};

std::string in_data(const char* name)
{
    return STILLIMAGE_TEST_DATA + std::string("/") + name;
}

TEST_F(EarlyClients, EveryRequestIsAnswered)
{
    const auto ask_everything = [](const packet_client& client) {
        EXPECT_EQ(type_of(ask(client, encode(1, hello()))), HELLO_ANSWER);
        EXPECT_EQ(type_of(ask(client, encode_ping(2, PING, {7}))), PONG);
        const auto status = ask(client, encode_empty(3, GET_STATUS));
        ASSERT_EQ(type_of(status), STATUS);
        EXPECT_NE(status->as<status_part>().text.find("\"image info\": {}"), std::string::npos);
        EXPECT_EQ(type_of(ask(client, encode(4, set_output_size{8, 8}))), DONE);
        const auto at_once = ask(client, encode(5, get_frame{0, 0}));
        ASSERT_EQ(type_of(at_once), ERROR);
        EXPECT_EQ(at_once->as<error>().code, NOT_READY);
        EXPECT_FALSE(ask(client, encode(6, get_frame{0, get_frame_wait})).has_value());
        EXPECT_EQ(type_of(ask(client, encode(7, set_metadata{"colour", "green"}))), DONE);
        EXPECT_EQ(type_of(ask(client, encode(8, set_metadata{"aspect ratio", "7:3"}))), DONE);
        EXPECT_EQ(type_of(ask(client, encode(9, release_frame{1}))), ERROR);
        EXPECT_EQ(type_of(ask(client, encode(10, subscribe{change_ready}))), DONE);
    };
    for (const char* name : pictures) {
        const int status = run(in_data(name), ask_everything, [](const packet_client& client) {
            const auto waited = answer_to(client, 6);
            ASSERT_EQ(type_of(waited), FRAME);
            EXPECT_TRUE(waited->descriptor);
            EXPECT_EQ(waited->as<frame>().aspect_numerator, 7);
        });
        EXPECT_EQ(status, 0) << name;
        const std::string stored = folder.read("meta/metadata");
        EXPECT_NE(stored.find("colour = green\n"), std::string::npos) << name << stored;
        EXPECT_NE(stored.find("aspect ratio = 7:3\n"), std::string::npos) << name << stored;
        std::filesystem::remove_all(folder.path("meta"));
    }
}

TEST_F(EarlyClients, RequestToExitIsObeyed)
{
    for (const char* name : pictures) {
        const auto quit = [](const packet_client& client) {
            EXPECT_EQ(type_of(ask(client, encode(1, hello()))), HELLO_ANSWER);
            EXPECT_EQ(type_of(ask(client, encode_empty(2, EXIT))), DONE);
            vexa_oneshot = false;
            vexa_no_autoshutdown = true;
        };
        EXPECT_EQ(run(in_data(name), quit,
                      [](const packet_client& client) {
                          EXPECT_FALSE(client.receive().has_value());
                          EXPECT_TRUE(client.hung_up());
                      }),
                  0)
            << name;
    }
}

TEST_F(EarlyClients, AreNotifiedWhenTheWorkerRefusesItsFile)
{
    const std::string file = folder.write("unknown", "no picture of any known kind");
    const auto wait_for_a_frame = [](const packet_client& client) {
        EXPECT_EQ(type_of(ask(client, encode(1, hello()))), HELLO_ANSWER);
        EXPECT_EQ(type_of(ask(client, encode(2, subscribe{change_going_down}))), DONE);
        EXPECT_EQ(type_of(ask(client, encode(3, get_frame{0, get_frame_wait}))), EVENT);
    };
    EXPECT_EQ(run(file, wait_for_a_frame,
                  [](const packet_client& client) {
                      const auto refused = answer_to(client, 3);
                      ASSERT_EQ(type_of(refused), ERROR);
                      EXPECT_EQ(refused->as<error>().code, GOING_DOWN);
                      const auto event_packet = answer_to(client, 2);
                      ASSERT_EQ(type_of(event_packet), EVENT);
                      EXPECT_NE(event_packet->as<event>().changes & change_going_down, 0U);
                  }),
              1);
}

TEST_F(EarlyClients, ConnectAndDisconnectWithoutALeak)
{
    const auto come_and_go = [this](const packet_client& first) {
        EXPECT_TRUE(first.connected());
        for (int i = 0; i < 50; ++i) {
            const packet_client client(folder.path("s.sock"));
            EXPECT_EQ(type_of(ask(client, encode(1, hello()))), HELLO_ANSWER);
            EXPECT_FALSE(ask(client, encode(2, get_frame{0, get_frame_wait})).has_value());
        }
        pump();
        EXPECT_TRUE(vexa_client_contexts.tracked.empty());
    };
    EXPECT_EQ(run(in_data(pictures[0]), come_and_go, [](const packet_client&) {}), 0);
}

} // namespace
