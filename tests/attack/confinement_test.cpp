// A captured worker tries what its confinement forbids.
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/standalone/confine/sanitized_build.h"
#include "tests/attack/captured.h"

using testing::ElementsAre;
using testing::Pair;
using testing::StartsWith;

namespace {

class CapturedWorker : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "a worker with a sanitizer is not confined";
        }
    }

    void expect_refused(const std::vector<std::string>& attempts)
    {
        const attack_results results = attack(home, attempts);
        EXPECT_EQ(results.size(), attempts.size());
        for (const auto& [attempt, result] : results) {
            EXPECT_THAT(result, StartsWith("refused ")) << attempt;
        }
    }

    worker_home home;
};

TEST_F(CapturedWorker, RunsNoProgram)
{
    EXPECT_THAT(attack(home, {"execute /bin/true"}),
                ElementsAre(Pair("execute /bin/true", "refused ENOSYS")));
}

TEST_F(CapturedWorker, ReachesNoNetwork)
{
    expect_refused({"tcp_socket", "udp_socket", "netlink_socket", "connect_stream /tmp/any"});
}

} // namespace
