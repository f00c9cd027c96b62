// The element's connection to a slow worker, in time that the test controls.
#include <memory>

#include <gtest/gtest.h>

#include "gst/worker_link.h"
#include "tests/support/fake_worker.h"
#include "tests/support/held_time.h"

namespace {

using namespace comm_protocol;

constexpr int short_limit_ms = 100;
constexpr int min_patience_ms = 5000; // for the subscription, however short the limit
constexpr int long_limit_ms = 4 * min_patience_ms;

void greet_and_subscribe(fake_peer& peer)
{
    peer.greet();
    peer.send(encode_empty(peer.next(SUBSCRIBE).request, DONE));
    peer.await_end();
}

class GstWorkerLink : public testing::Test {
protected:
    // The worker greets at once and is then busy.
    stillimage_result open(int timeout_ms)
    {
        return link->open({worker.path(), "", false}, timeout_ms);
    }

    const fake_worker worker{greet_and_subscribe};
    const std::shared_ptr<worker_link> link = std::make_shared<worker_link>();
};

TEST_F(GstWorkerLink, SubscriptionWaitsLongerThanAShortLimit)
{
    const held_time time({0, min_patience_ms});
    EXPECT_EQ(open(short_limit_ms), STILLIMAGE_OK) << link->error();
    EXPECT_EQ(time.passed_ms(), min_patience_ms);
}

TEST_F(GstWorkerLink, WorkerThatStaysBusyIsGivenUp)
{
    const held_time time({0});
    EXPECT_EQ(open(short_limit_ms), STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(link->error(), "the worker did not answer in time");
    EXPECT_EQ(time.passed_ms(), min_patience_ms);
}

TEST_F(GstWorkerLink, LongerLimitAppliesToTheSubscriptionToo)
{
    const held_time time({0, long_limit_ms});
    EXPECT_EQ(open(long_limit_ms), STILLIMAGE_OK) << link->error();
    EXPECT_EQ(time.passed_ms(), long_limit_ms);
}

TEST_F(GstWorkerLink, WorkerThatStaysBusyIsGivenUpAfterALongerLimit)
{
    const held_time time({0});
    EXPECT_EQ(open(long_limit_ms), STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(time.passed_ms(), long_limit_ms);
}

// The longer wait is only for a worker that has greeted.
TEST_F(GstWorkerLink, WorkerThatDoesNotGreetIsGivenUpWithinTheLimit)
{
    const held_time time({});
    EXPECT_EQ(open(short_limit_ms), STILLIMAGE_ERROR_TIMEOUT);
    EXPECT_EQ(time.passed_ms(), short_limit_ms);
}

} // namespace
