// Metadata that clients set: what it affects, what it survives, and that no text of a client makes
// the status document invalid.
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json11.hpp>

#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using json11::Json;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg"; // 100 x 75

const Json wide = Json::array{16, 9};
const Json standard = Json::array{4, 3};

class SettingsByClients : public testing::Test {
protected:
    Json printed_by(const std::vector<std::string>& arguments) const
    {
        std::string text;
        EXPECT_EQ(run_client(home, arguments, &text), 0) << arguments[1];
        std::string error;
        const Json json = Json::parse(text, error);
        EXPECT_EQ(error, "") << text.substr(0, 1000);
        return json;
    }

    void set(const worker& served, const std::string& name, const std::string& value) const
    {
        EXPECT_EQ(run_client(home, {served.socket(), "set", name, value}), 0) << name;
    }

    void quit(worker& served) const
    {
        EXPECT_EQ(run_client(home, {served.socket(), "quit"}), 0);
        EXPECT_EQ(served.wait_end(), 0) << served.printed();
    }

    // The value of a metadata entry in the status document; "(none)" when there is no such entry.
    static std::string shown(const Json& document, const std::string& name)
    {
        for (const Json& entry : document["metadata"].array_items()) {
            if (entry["name"].string_value() == name) {
                return entry["value"].string_value();
            }
        }
        return "(none)";
    }

    worker_home home;
    const std::string metadir = home.path("meta");
};

// --- what they affect ---------------------------------------------------------------------------

TEST_F(SettingsByClients, ApplyToLaterFramesAndSurviveARestart)
{
    auto served = std::make_unique<worker>(
        home, picture, std::vector<std::string>{"--metadir", metadir, "--aspect-ratio", "4:3"});
    ASSERT_TRUE(served->wait_ready());
    const held_client client = connect_to(served->socket());
    const held_frame before = take_frame(client);
    set(*served, "aspect ratio", "16:9");
    set(*served, "background music", "on");
    const Json frame = printed_by({served->socket(), "frame"});
    EXPECT_EQ(frame["aspect"], wide);
    EXPECT_EQ(frame["scanline"]["aspect"], standard); // written before the change
    EXPECT_EQ(stillimage_frame_picture(before.get())->aspect_numerator, 4);
    EXPECT_THAT(home.folder().read("meta/metadata"), Not(HasSubstr("aspect ratio = 16:9\n")));
    EXPECT_TRUE(eventually([&] { // within a second or so, not only when the worker ends
        const std::string stored = home.folder().read("meta/metadata");
        return stored.find("aspect ratio = 16:9\n") != std::string::npos &&
               stored.find("background music = on\n") != std::string::npos;
    }));
    quit(*served);

    worker restarted(home, picture, {"--metadir", metadir});
    ASSERT_TRUE(restarted.wait_ready());
    const Json again = printed_by({restarted.socket(), "frame"});
    EXPECT_EQ(again["aspect"], wide);
    EXPECT_EQ(again["scanline"]["aspect"], wide);
    const Json item = printed_by({restarted.socket(), "status"})["item"];
    EXPECT_EQ(item["aspect ratio"], wide);
    EXPECT_EQ(item["background music"], Json(true));
    quit(restarted);
}

// A worker that waits for room in its domain has not written its scanline lists yet.
TEST_F(SettingsByClients, ApplyToScanlineListsWrittenLater)
{
    worker first(home, picture, {"--domain-limit", "40K"});
    ASSERT_TRUE(first.wait_ready());
    worker second(home, picture, {"--domain-limit", "40K", "--metadir", metadir});
    ASSERT_TRUE(second.wait_printed("mipmap[0]: ")); // the last step before the wait
    set(second, "aspect ratio", "16:9");
    EXPECT_TRUE(eventually([&] { // within a second or so, although nothing is served yet
        return home.folder().read("meta/metadata").find("ratio = 16:9\n") != std::string::npos;
    }));
    EXPECT_EQ(printed_by({second.socket(), "status"})["buffer"]["number"], Json(0));
    quit(first);
    const Json full = printed_by({second.socket(), "frame"});
    EXPECT_EQ(full["aspect"], wide);
    EXPECT_EQ(full["scanline"]["aspect"], wide);
    const Json level = printed_by({second.socket(), "frame", "--size", "25x19"});
    EXPECT_EQ(level["scanline"]["aspect"], wide);
    EXPECT_NE(level["scanline_offset"], full["scanline_offset"]);
    quit(second);
}

TEST_F(SettingsByClients, AreNotWrittenWhenMetadataMayNotBeUpdated)
{
    worker served(home, picture, {"--metadir", metadir, "--no-metadata-update"});
    ASSERT_TRUE(served.wait_ready());
    const std::string before =
        home.folder().has("meta/metadata") ? home.folder().read("meta/metadata") : std::string();
    for (const auto& [name, value] : std::vector<std::pair<std::string, std::string>>{
             {"aspect ratio", "16:9"}, {"background music", "on"}}) {
        EXPECT_EQ(run_client(home, {served.socket(), "set", name, value}), 1) << name;
    }
    EXPECT_EQ(printed_by({served.socket(), "frame"})["aspect"], wide);
    const Json unstored = printed_by({served.socket(), "status"})["metadata not stored"];
    EXPECT_EQ(unstored["names"], (Json::array{"aspect ratio", "background music"}));
    EXPECT_EQ(unstored["reason"], Json("the worker runs with --no-metadata-update"));
    quit(served);
    EXPECT_EQ(home.folder().has("meta/metadata") ? home.folder().read("meta/metadata")
                                                 : std::string(),
              before);
}

TEST_F(SettingsByClients, NamesThatAlmostMatchAreOrdinaryEntries)
{
    worker served(home, picture, {"--aspect-ratio", "4:3"});
    ASSERT_TRUE(served.wait_ready());
    for (const char* name : {"aspect ratio ", "aspect", "Aspect ratio", "aspect ratio 2",
                             "background music ", "background"}) {
        set(served, name, "16:9");
        EXPECT_EQ(shown(printed_by({served.socket(), "status"}), name), "16:9");
    }
    EXPECT_EQ(printed_by({served.socket(), "frame"})["aspect"], standard);
    const Json item = printed_by({served.socket(), "status"})["item"];
    EXPECT_EQ(item["aspect ratio"], standard);
    EXPECT_EQ(item["background music"], Json(false));
    for (const auto& [name, value] : std::vector<std::pair<std::string, std::string>>{
             {"aspect ratio", "wide"}, {"aspect ratio", "0/1"}, {"background music", "loud"}}) {
        EXPECT_EQ(run_client(home, {served.socket(), "set", name, value}), 1) << value;
    }
    EXPECT_EQ(printed_by({served.socket(), "frame"})["aspect"], standard);
}

// --- what an answer guarantees ------------------------------------------------------------------

TEST_F(SettingsByClients, SurviveAKillRightAfterTheAnswer)
{
    for (int round = 0; round < 20; ++round) {
        worker served(home, picture, {"--metadir", metadir});
        const std::string value = std::to_string(round + 1) + ":1";
        {
            const held_client client = connect_to(served.socket());
            ASSERT_EQ(stillimage_set_metadata(client.get(), "aspect ratio", value.c_str(), 30'000),
                      STILLIMAGE_OK);
            served.send(SIGKILL);
        }
        EXPECT_EQ(served.wait_end(), -SIGKILL);
        // In every other round the next run does not write metadata.
        if (round % 2 == 0) {
            const ended_worker looked =
                run_worker(home, {{"--file", picture, "--metadir", metadir, "--identify-only",
                                   "--no-metadata-update"}});
            EXPECT_THAT(looked.printed, HasSubstr("   Aspect ratio: " + value + "\n"));
        }
        worker next(home, picture, {"--metadir", metadir});
        EXPECT_EQ(shown(printed_by({next.socket(), "status"}), "aspect ratio"), value);
        quit(next);
        EXPECT_THAT(home.folder().read("meta/metadata"),
                    HasSubstr("aspect ratio = " + value + "\n"));
        EXPECT_FALSE(home.folder().has("meta/metadata.pending-1"));
    }
}

// Without its folder the worker applies the value, and reports that it is not stored.
TEST_F(SettingsByClients, FailureToStoreIsReportedWithItsReason)
{
    worker served(home, picture, {"--metadir", metadir});
    ASSERT_TRUE(served.wait_ready());
    std::filesystem::remove_all(metadir);
    const held_client client = connect_to(served.socket());
    EXPECT_EQ(stillimage_set_metadata(client.get(), "aspect ratio", "16:9", 30'000),
              STILLIMAGE_ERROR_NOT_STORED);
    EXPECT_STREQ(stillimage_last_error(client.get()),
                 "the worker says: applied, but not stored: No such file or directory");
    EXPECT_EQ(run_client(home, {served.socket(), "set", "aspect ratio", "16:9"}), 1);
    EXPECT_EQ(printed_by({served.socket(), "frame"})["aspect"], wide);
    EXPECT_EQ(printed_by({served.socket(), "status"})["metadata not stored"]["count"], Json(1));
    quit(served);
    EXPECT_THAT(served.printed(), HasSubstr("What clients have set is lost\n"));
}

// --- hostile texts ------------------------------------------------------------------------------

// All byte values except 0, repeated.
std::string every_byte(size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text.push_back(static_cast<char>(1 + i % 255));
    }
    return text;
}

TEST_F(SettingsByClients, MegabytesOfHostileTextsLeaveTheDocumentValid)
{
    auto served =
        std::make_unique<worker>(home, picture, std::vector<std::string>{"--metadir", metadir});
    ASSERT_TRUE(served->wait_ready());
    const std::string value = every_byte(16384);
    {
        const held_client client = connect_to(served->socket());
        const held_client reader = connect_to(served->socket());
        for (int i = 0; i < 256; ++i) {
            const std::string name = "\"name\\\x1B\xFF\n" + std::to_string(i);
            ASSERT_EQ(stillimage_set_metadata(client.get(), name.c_str(), value.c_str(), 30'000),
                      STILLIMAGE_OK)
                << i << stillimage_last_error(client.get());
            char* text = nullptr;
            ASSERT_EQ(stillimage_get_status(reader.get(), 30'000, &text), STILLIMAGE_OK);
            std::string error;
            const Json document = Json::parse(text, error);
            ASSERT_EQ(error, "") << i;
            ASSERT_LE(std::string(text).size(), size_t{1} << 20);
            ASSERT_EQ(std::string(text).find('\n'), std::string::npos);
            stillimage_free(text);
        }
        EXPECT_EQ(stillimage_set_metadata(client.get(), "one more", "x", 30'000),
                  STILLIMAGE_ERROR_VALUE)
            << stillimage_last_error(client.get());
    }
    EXPECT_EQ(printed_by({served->socket(), "status"})["metadata cut"], Json(true));
    quit(*served);

    // The four megabytes in the file are read, kept, and truncated in the document in the same way.
    EXPECT_GT(home.folder().read("meta/metadata").size(), size_t{4} << 20);
    worker restarted(home, picture, {"--metadir", metadir});
    ASSERT_TRUE(restarted.wait_ready()) << restarted.printed();
    const Json document = printed_by({restarted.socket(), "status"});
    EXPECT_EQ(document["metadata cut"], Json(true));
    EXPECT_EQ(document["image info"]["width"], Json(100));
    EXPECT_GT(document["metadata"].array_items().size(), 3U);
    set(restarted, "aspect ratio", "16:9");
    quit(restarted);
    EXPECT_THAT(home.folder().read("meta/metadata"), HasSubstr("aspect ratio = 16:9\n"));
}

TEST_F(SettingsByClients, HostileMetadataFileIsShownAsValidJson)
{
    worker made(home, picture, {"--metadir", metadir});
    ASSERT_TRUE(made.wait_ready());
    quit(made);
    const std::string file = home.folder().read("meta/metadata");
    home.folder().write("meta/metadata",
                        file + "\"q\\\\\" = \"}{\\xFF\\xC0\\x80\\xED\\xA0\\x80\\x1B[2J\n" +
                            "long = " + std::string(1'000'000, '"') + "\n");
    worker served(home, picture, {"--metadir", metadir});
    ASSERT_TRUE(served.wait_ready()) << served.printed();
    const Json document = printed_by({served.socket(), "status"});
    EXPECT_EQ(document["metadata cut"], Json(true));
    EXPECT_EQ(shown(document, "image size"), "100 x 75");
    EXPECT_EQ(document["image info"]["file type"], Json("JPEG"));
    quit(served);
}

} // namespace
