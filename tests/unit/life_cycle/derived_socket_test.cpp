// The comm socket of an item: it exists before the picture is examined, or the start fails.
#include <filesystem>
#include <map>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json11.hpp>

#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/serving.h"
#include "platform/settings.h"
#include "platform/standalone/comm/listener.h"
#include "platform/standalone/comm/server.h"
#include "platform/standalone/item/client_settings.h"
#include "platform/standalone/report/document.h"
#include "platform/start_up.h"
#include "platform/time.h"
#include "tests/support/child_process.h"
#include "tests/support/item_fixture.h"
#include "tests/support/packet_client.h"

namespace {

namespace fs = std::filesystem;

class DerivedSocket : public item_test::ItemFixture {
protected:
    DerivedSocket()
    {
        name_picture();
        vexa_auto_socket_create = true;
        vexa_set_string(&vexa_file_metadir, folder.path("meta").c_str());
        vexa_set_string(&vexa_sock, path.c_str());
    }

    // Expects a refusal with this reason that leaves nothing behind.
    void expect_obstacle(const std::string& reason)
    {
        EXPECT_EQ(messages([] { EXPECT_NE(vexa_standard_to_derived_params(), 0); }),
                  "Comm socket '" + path + "': " + reason + "\n");
        EXPECT_EQ(vexa_meta, nullptr);
        EXPECT_EQ(vexa_comm_server, nullptr);
        EXPECT_FALSE(folder.has("s.sock.lock"));
    }

    const std::string path = folder.path("s.sock");
};

TEST_F(DerivedSocket, ExistsTogetherWithTheItem)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_TRUE(packet_client(path).connected());
    EXPECT_NE(vexa_comm_server, nullptr);
    vexa_free_all();
    EXPECT_FALSE(folder.has("s.sock"));
    EXPECT_FALSE(folder.has("s.sock.lock"));
}

TEST_F(DerivedSocket, IsNotMadeUnlessRequested)
{
    vexa_auto_socket_create = false;
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_FALSE(folder.has("s.sock"));
}

TEST_F(DerivedSocket, IsNotMadeInModesThatDoNotServe)
{
    for (bool* mode : {&vexa_identify_only, &vexa_create_meta, &vexa_temp_clean_only}) {
        *mode = true;
        ASSERT_EQ(vexa_standard_to_derived_params(), 0);
        EXPECT_FALSE(folder.has("s.sock"));
        EXPECT_EQ(vexa_comm_server, nullptr);
        *mode = false;
    }
}

TEST_F(DerivedSocket, IsReplacedByASecondDerivation)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_TRUE(packet_client(path).connected());
}

TEST_F(DerivedSocket, ObstaclesAtItsPathAreReportedAndKept)
{
    folder.write("s.sock", "text");
    expect_obstacle("is there and not a socket");
    EXPECT_EQ(folder.read("s.sock"), "text");
    unlink(path.c_str());
    fs::create_directory(path);
    expect_obstacle("is there and not a socket");
    rmdir(path.c_str());
    fs::create_symlink("nowhere", path);
    expect_obstacle("is a symbolic link");
    unlink(path.c_str());
    platform::comm_listener live;
    ASSERT_TRUE(platform::open_listener(path, &live));
    expect_obstacle("another process is listening on it");
    EXPECT_TRUE(packet_client(path).connected());
    platform::close_listener(&live);
}

TEST_F(DerivedSocket, ItemIsClosedWhenTheSocketCannotBeMade)
{
    folder.write(".stillimage-s.sock", "in the way of making it");
    expect_obstacle("Address already in use");
}

TEST_F(DerivedSocket, ProcessThatEndsEarlyLeavesNothingBehind)
{
    EXPECT_EXIT(
        {
            const bool derived = vexa_standard_to_derived_params() == 0;
            exit(derived && folder.has("s.sock") ? 7 : 1);
        },
        testing::ExitedWithCode(7), "");
    EXPECT_FALSE(folder.has("s.sock"));
    EXPECT_FALSE(folder.has("s.sock.lock"));
}

TEST_F(DerivedSocket, DaemonWritesItsNumberIntoTheLockAndLeavesNothingBehind)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_EQ(run_in_child([&] {
                  comm_socket_v4_reopen_server(vexa_comm_server);
                  const bool right = folder.read("s.sock.lock") == std::to_string(getpid()) + "\n";
                  exit(right ? 0 : 1);
                  return 2;
              }),
              0);
    EXPECT_FALSE(folder.has("s.sock"));
    EXPECT_FALSE(folder.has("s.sock.lock"));
}

TEST_F(DerivedSocket, StatusDocumentHasTheItemBeforeTheExamination)
{
    fs::create_directory(folder.path("meta"));
    folder.write("meta/metadata", "GUID = 1234\ncolour = green\n");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    for (const std::string& piece :
         {"\"socket\": \"" + path + "\"", "\"file path\": \"" + std::string(vexa_file) + "\"",
          std::string("\"GUID\": \"1234\""), std::string("\"value\": \"green\"")}) {
        EXPECT_NE(platform::status_document().find(piece), std::string::npos) << piece;
    }
}

TEST_F(DerivedSocket, ValueSetBeforeTheExaminationIsKept)
{
    fs::create_directory(folder.path("meta"));
    folder.write("meta/metadata", "colour = green\n");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    ASSERT_EQ(platform::store_client_setting("colour", "red"), platform::setting_state::STORED);
    ASSERT_EQ(platform::store_client_setting("mood", "calm"), platform::setting_state::STORED);
    // As the program does after the examination.
    meta_to_json(vexa_metadata);
    vexa_standard_vars_to_metadata(vexa_metadata);
    ASSERT_EQ(
        metadata_v4_metadata_context_write_metadata_to_file(vexa_metadata, vexa_meta, 0, nullptr),
        0);
    metadata_v4_metadata_close_file(vexa_metadata);
    EXPECT_NE(folder.read("meta/metadata").find("colour = red\n"), std::string::npos);
    EXPECT_NE(platform::status_document().find("\"value\": \"red\""), std::string::npos);
    EXPECT_NE(platform::status_document().find("\"value\": \"calm\""), std::string::npos);
    EXPECT_EQ(platform::store_client_setting("colour", "blue"),
              platform::setting_state::STORED); // the list is closed
    EXPECT_NE(platform::status_document().find("\"value\": \"blue\""), std::string::npos);
}

unsigned documents_built = 0;

void count_document(std::map<std::string, json11::Json>& /*document*/, unsigned long /*context*/)
{
    ++documents_built;
}

// A client that changes the document and asks for it without a pause. The processor would otherwise
// be busy with nothing but building it.
TEST_F(DerivedSocket, StatusDocumentIsBuiltAtMostEveryTenMilliseconds)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    const packet_client client(path);
    ASSERT_TRUE(client.send(comm_protocol::encode(1, comm_protocol::hello())));
    vexa_on_json_build = count_document;
    documents_built = 0;
    const uint64_t began_us = monotonic_clock_us();
    int answered = 0;
    for (int asked = 0; answered < 20;) {
        if (asked == answered) {
            vexa_background_music = 1 - vexa_background_music;
            platform::mark_document_changed();
            ASSERT_TRUE(client.send(comm_protocol::encode_empty(2, comm_protocol::GET_STATUS)));
            ++asked;
        }
        vexa_comm_server->next_look_us = 0;
        idle_vexa_server_comm();
        while (const auto packet = client.receive()) {
            answered += packet->header.type == comm_protocol::STATUS ? 1 : 0;
        }
    }
    const uint64_t passed_us = monotonic_clock_us() - began_us;
    EXPECT_LE(documents_built, passed_us / 10'000 + 1);
    EXPECT_GE(documents_built, 20U);
}

} // namespace
