// Connections by picture path to a worker that has not examined its picture yet.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/fake_worker.h"
#include "tests/unit/client/open_picture_fixture.h"

namespace {

// A worker program whose socket belongs to a fake worker. `status` returns the status document for
// each request, or null to hang up. The program ends when the file "over" exists, or with the test.
class OpenExamined : public OpenPicture {
protected:
    stillimage_result connect_to(std::function<const char*(int request)> status,
                                 int timeout_ms = start_limit_ms)
    {
        const fake_worker fake([&](fake_peer& peer) {
            peer.greet();
            for (int i = 0;; ++i) {
                const uint64_t number = peer.next(comm_protocol::GET_STATUS).request;
                const char* document = number != 0 ? status(i) : nullptr;
                if (document == nullptr) {
                    return;
                }
                const auto size = static_cast<uint32_t>(strlen(document));
                peer.send(
                    comm_protocol::encode(number, comm_protocol::status_part{size, 0, document}));
            }
        });
        char path[108];
        EXPECT_EQ(stillimage_socket_of(picture.c_str(), path, sizeof path), STILLIMAGE_OK);
        environment.set(
            "STILLIMAGE_PROGRAM",
            program("mkdir -p $(dirname " + std::string(path) + "); ln -s " + fake.path() + " " +
                    path + "\n" + when_it_serves + "\nwhile [ -e $0 ] && ! [ -e " + over +
                    " ]; do sleep 0.01; done\nrm " + path + "\necho one >&2; exit 1\n"));
        const stillimage_result result = connect(picture, STILLIMAGE_START_WORKER, timeout_ms);
        started.clear(); // the process number is that of the test
        home.folder().write("over", "");
        if (result == STILLIMAGE_OK) {
            client.reset(); // ends the fake worker
        }
        return result;
    }

    const std::string over = home.folder().path("over");
    std::string when_it_serves; // a further command of the program
};

constexpr const char* examining = R"({"process": {"examined": false}})";

TEST_F(OpenExamined, RefusalAfterTheGreetingIsReported)
{
    EXPECT_EQ(connect_to([&](int request) {
                  if (request == 2) {
                      home.folder().write("over", "");
                  }
                  return request < 2 ? examining : nullptr;
              }),
              STILLIMAGE_ERROR_REFUSED);
    EXPECT_EQ(error(), "the worker does not serve " + picture + ": one");
}

TEST_F(OpenExamined, ExaminationIsWaitedFor)
{
    int requests = 0;
    EXPECT_EQ(connect_to([&](int request) {
                  requests = request + 1;
                  return request < 2 ? examining : R"({"process": {"examined": true}})";
              }),
              STILLIMAGE_OK);
    EXPECT_EQ(requests, 3);
}

// The connection may have been to another worker, which ended; then the started one serves.
TEST_F(OpenExamined, ConnectionThatEndsIsMadeAgainWhileTheWorkerRuns)
{
    int requests = 0;
    EXPECT_EQ(connect_to([&](int) -> const char* {
                  return ++requests == 1 ? nullptr : R"({"process": {"examined": true}})";
              }),
              STILLIMAGE_OK)
        << error();
    EXPECT_EQ(requests, 2);
}

TEST_F(OpenExamined, DocumentWithoutTheMemberCountsAsExamined)
{
    int requests = 0;
    EXPECT_EQ(connect_to([&](int request) {
                  requests = request + 1;
                  return R"({"process": {"pid": 1}})";
              }),
              STILLIMAGE_OK);
    EXPECT_EQ(requests, 1);
}

TEST_F(OpenExamined, LongExaminationIsWaitedForUpToTheLimit)
{
    constexpr auto limit = std::chrono::milliseconds(5000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(connect_to([](int) { return examining; }, static_cast<int>(limit.count())),
              STILLIMAGE_OK);
    EXPECT_GE(std::chrono::steady_clock::now() - start, limit);
}

TEST_F(OpenExamined, WorkerThatDoesNotAnswerIsAcceptedAtTheLimit)
{
    EXPECT_EQ(connect_to(
                  [&](int) -> const char* {
                      EXPECT_TRUE(eventually([&] { return home.folder().has("over"); }));
                      return nullptr;
                  },
                  5000),
              STILLIMAGE_OK);
}

// The library looks every ten milliseconds, also when no output can wake it.
TEST_F(OpenExamined, WorkerThatHasClosedItsOutputIsNotAskedWithoutAPause)
{
    when_it_serves = "exec 2>&-";
    int requests = 0;
    EXPECT_EQ(connect_to(
                  [&](int request) {
                      requests = request + 1;
                      return examining;
                  },
                  5000),
              STILLIMAGE_OK);
    EXPECT_LE(requests, 501);
}

} // namespace
