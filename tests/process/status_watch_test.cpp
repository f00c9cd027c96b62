// `stillimage-client status --watch` on the real worker: it prints the document as one line of JSON
// after every change, whatever caused the change.
#include <csignal>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json11.hpp>

#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using json11::Json;
using testing::HasSubstr;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";
const std::string photograph = STILLIMAGE_TEST_DATA "/jpeg/landscape-420.jpg"; // 75 row groups

class StatusWatch : public testing::Test {
protected:
    // The documents in complete lines. Each differs from the one before it.
    static std::vector<Json> documents(const started_client& watcher)
    {
        std::vector<Json> all;
        std::string previous;
        std::istringstream printed(watcher.printed());
        for (std::string line; std::getline(printed, line) && !printed.eof(); previous = line) {
            std::string error;
            all.push_back(Json::parse(line, error));
            EXPECT_EQ(error, "") << line;
            EXPECT_NE(line, previous);
        }
        return all;
    }

    template <typename Condition>
    static bool comes_to_show(const started_client& watcher, Condition holds)
    {
        return eventually([&] {
            const std::vector<Json> seen = documents(watcher);
            return !seen.empty() && holds(seen.back());
        });
    }

    static int clients_in(const Json& document)
    {
        return document["process"]["clients"].int_value();
    }

    worker_home home;
};

TEST_F(StatusWatch, ProgressIsShownWhileAPictureIsDecoded)
{
    worker served(home, photograph, {"--slow-decode"});
    started_client watcher(home, {served.socket(), "status", "--watch"});
    EXPECT_TRUE(comes_to_show(
        watcher, [](const Json& document) { return document["process"]["ready"] == Json(1); }));
    int before = 0;
    std::set<int> percents;
    for (const Json& document : documents(watcher)) {
        EXPECT_EQ(document["image info"]["width"], Json(1800));
        const Json& process = document["process"];
        if (process["progress"]["text"] == Json("Decoding JPEG")) {
            const int percent = process["progress"]["percent"].int_value();
            EXPECT_EQ(process["ready"], Json(0));
            EXPECT_GE(percent, before);
            before = percent;
            percents.insert(percent);
        }
    }
    EXPECT_GT(percents.size(), 20U);
}

TEST_F(StatusWatch, MetadataSetDuringADecodeIsShownBeforeItsEnd)
{
    worker served(home, photograph, {"--slow-decode"});
    started_client watcher(home, {served.socket(), "status", "--watch"});
    EXPECT_EQ(run_client(home, {served.socket(), "set", "aspect ratio", "16:9"}), 0);
    EXPECT_TRUE(comes_to_show(watcher, [](const Json& document) {
        return document["item"]["aspect ratio"] == Json(Json::array{16, 9});
    }));
    EXPECT_EQ(documents(watcher).back()["process"]["ready"], Json(0));
}

TEST_F(StatusWatch, ClientsThatConnectAndDisconnectAreShown)
{
    const worker served(home, picture);
    ASSERT_TRUE(served.wait_ready());
    const started_client watcher(home, {served.socket(), "status", "--watch"});
    const auto shows = [&](int clients) {
        return comes_to_show(watcher,
                             [&](const Json& document) { return clients_in(document) == clients; });
    };
    EXPECT_TRUE(shows(1));
    held_client first = connect_to(served.socket());
    EXPECT_TRUE(shows(2));
    held_client second = connect_to(served.socket());
    EXPECT_TRUE(shows(3));
    first.reset();
    EXPECT_TRUE(shows(2));
    second.reset();
    EXPECT_TRUE(shows(1));
}

TEST_F(StatusWatch, MetadataSetByOthersIsShownToEveryWatcher)
{
    const worker served(home, picture);
    const started_client watchers[] = {{home, {served.socket(), "status", "--watch"}},
                                       {home, {served.socket(), "status", "--watch"}}};
    ASSERT_TRUE(served.wait_ready());
    EXPECT_EQ(run_client(home, {served.socket(), "set", "background music", "on"}), 0);
    EXPECT_EQ(run_client(home, {served.socket(), "set", "title", "\"a\"\n\x1B[2J\xFF"}), 0);
    for (const started_client& watcher : watchers) {
        EXPECT_TRUE(comes_to_show(watcher, [](const Json& document) {
            const auto& entries = document["metadata"].array_items();
            return document["item"]["background music"] == Json(true) && !entries.empty() &&
                   entries.back()["name"] == Json("title") &&
                   entries.back()["value"] == Json("\"a\"\n\x1B[2J\xEF\xBF\xBD");
        }));
    }
}

TEST_F(StatusWatch, NothingIsShownWhileNothingChanges)
{
    const worker served(home, picture);
    ASSERT_TRUE(served.wait_ready());
    const started_client watcher(home, {served.socket(), "status", "--watch"});
    EXPECT_TRUE(comes_to_show(watcher, [](const Json& document) {
        return clients_in(document) == 1 && document["process"]["ready"] == Json(1);
    }));
    pause_ms(100); // until the document no longer counts the connection of wait_ready()
    const std::string before = watcher.printed();
    pause_ms(300);
    EXPECT_EQ(watcher.printed(), before);
    // Setting the current value again changes only the number of clients, for a moment.
    const Json item = documents(watcher).back()["item"];
    EXPECT_EQ(run_client(home, {served.socket(), "set", "background music", "off"}), 0);
    pause_ms(100);
    for (const Json& document : documents(watcher)) {
        EXPECT_EQ(document["item"], item);
    }
}

TEST_F(StatusWatch, EndsWithStatusZeroWhenTheWorkerEnds)
{
    for (const int signal : {SIGTERM, SIGKILL}) {
        worker served(home, picture);
        ASSERT_TRUE(served.wait_ready());
        started_client watcher(home, {served.socket(), "status", "--watch"});
        EXPECT_TRUE(
            comes_to_show(watcher, [](const Json& document) { return clients_in(document) == 1; }));
        served.send(signal);
        EXPECT_EQ(watcher.wait_end(), 0);
        served.wait_end();
    }
}

} // namespace
