// The element with a hostile worker: it posts an error or plays on, and never ends the application.
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/gst/gst_fixture.h"
#include "tests/support/forged_worker.h"

namespace {

class GstForgedWorker : public GstFixture, public testing::WithParamInterface<lie> {
protected:
    // "" or the text of the error.
    static std::string play(const std::string& socket, const std::string& downstream)
    {
        return pipeline("stillimagesrc num-buffers=3 loops=-1 timeout=100 socket=" + socket +
                        " ! " + downstream)
            .run();
    }
};

TEST_P(GstForgedWorker, IsAnErrorOrPlays)
{
    const lie& told = GetParam();
    const fake_worker worker([&](fake_peer& peer) { serve_lies(peer, told); });
    for (const char* downstream :
         {"fakesink", "videoconvert ! video/x-raw,format=RGB ! fakesink"}) {
        const std::string error = play(worker.path(), downstream);
        EXPECT_TRUE(told.shows_frames || !error.empty()) << downstream;
        EXPECT_TRUE(g_utf8_validate(error.c_str(), -1, nullptr)) << error;
    }
}

// The element waits for a subscription for at least 5 seconds; tests/gst/worker_link_test.cpp
// covers that.
std::vector<lie> lies_for_the_element()
{
    std::vector<lie> lies = all_lies();
    std::erase_if(lies, [](const lie& told) { return told.name == "SilenceAtTheSubscription"; });
    return lies;
}

INSTANTIATE_TEST_SUITE_P(Lies, GstForgedWorker, testing::ValuesIn(lies_for_the_element()),
                         [](const auto& one) { return one.param.name; });

// --- memory --------------------------------------------------------------------------------------

class GstMemory : public GstFixture {
protected:
    ~GstMemory() override { limit_address_space(RLIM_INFINITY); }

    static uint64_t address_space()
    {
        uint64_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    }
    static void limit_address_space(uint64_t bytes)
    {
        const rlimit limit = {bytes, RLIM_INFINITY};
        EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    }
};

// All planes lie on top of each other, so the copy needs four times the memory of the picture.
TEST_F(GstMemory, CopyThatDoesNotFitIsAnError)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a limit on the address space is needed";
#endif
    constexpr uint32_t side = 12'000;
    constexpr uint64_t area = uint64_t{side} * side;
    const lie large = {"Large", [](forged_answers& answers) {
                           answers.sample = frame_sample({.full_width = side,
                                                          .full_height = side,
                                                          .x_shift = 0,
                                                          .y_shift = 0,
                                                          .alpha = true,
                                                          .overlapping = true});
                       }};
    const fake_worker worker([&](fake_peer& peer) { serve_lies(peer, large); });
    // The worker's picture, its mapping and the element's are in this process; besides, there is
    // room for threads, but not for the copy.
    limit_address_space(address_space() + 3 * area + 2 * area);
    const pipeline played("stillimagesrc socket=" + worker.path() + " ! fakesink");
    EXPECT_EQ(played.run(), "No memory for a frame of \"" + worker.path() + "\"");
}

} // namespace
