// A client beside each of twelve hostile ones: it gets everything that it requests, and when the
// hostile one has gone, the worker is as small as before.
#include <fcntl.h>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/hostile_clients.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/peacock-420.jpg";

class HostileClients : public testing::TestWithParam<hostile_client> {
protected:
    void SetUp() override
    {
        served = std::make_unique<worker>(home, picture,
                                          std::vector<std::string>{"--metadir", home.path("meta")});
        ASSERT_TRUE(served->wait_ready());
        good = connect_to(served->socket());
        for (int i = 0; i < 200; ++i) {
            request_everything();
        }
    }

    void request_everything() const
    {
        const held_frame frame = take_frame(good);
        ASSERT_NE(frame, nullptr);
        ASSERT_EQ(stillimage_ping(good.get(), 30'000), STILLIMAGE_OK);
        char* status = nullptr;
        ASSERT_EQ(stillimage_get_status(good.get(), 30'000, &status), STILLIMAGE_OK)
            << stillimage_last_error(good.get());
        stillimage_free(status);
    }

    worker_home home;
    std::unique_ptr<worker> served;
    held_client good;
};

TEST_P(HostileClients, OthersGetNoErrorAndTheMemoryComesBack)
{
    constexpr unsigned enough_steps = 600;
    constexpr size_t kibibytes_more = 4096;
    const size_t descriptors = served->open_descriptors();
    const size_t before = served->resident_kilobytes();
    {
        const hostile_process hostile(GetParam(), served->socket());
        do {
            request_everything();
        } while (!HasFatalFailure() && hostile.steps() < enough_steps);
    }
    EXPECT_TRUE(eventually([&] { return served->open_descriptors() <= descriptors; }));
    EXPECT_TRUE(served->is_running());
    if (platform::sanitized_build) {
        return; // a sanitizer keeps memory that was freed
    }
    EXPECT_TRUE(eventually(
        [&] {
            request_everything();
            return served->resident_kilobytes() <= before + kibibytes_more;
        },
        10'000))
        << before << " KiB before, " << served->resident_kilobytes() << " after";
}

std::string name_of(const testing::TestParamInfo<hostile_client>& tested)
{
    std::string name;
    bool starts_word = true;
    for (const char c : std::string(tested.param.name)) {
        if (c != ' ') {
            name += starts_word ? static_cast<char>(toupper(c)) : c;
        }
        starts_word = c == ' ';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Beside, HostileClients,
                         testing::ValuesIn(hostile_clients().begin(), hostile_clients().end()),
                         name_of);

} // namespace
