#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/misc.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/gamma_table.h"
#include "tests/support/temporary_folder.h"

namespace {

std::string open_files()
{
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    fd_debug_dump_open_files(out);
    fclose(out);
    std::string result(text, size);
    free(text);
    return result;
}

TEST(OpenFiles, EachDescriptorHasALine)
{
    const temporary_folder folder;
    const unique_fd fd(platform::open_file(folder.write("f", "").c_str(), O_RDONLY));
    const std::string line = std::to_string(fd.get()) + ": " + folder.path("f") + "\n";
    EXPECT_NE(open_files().find(line), std::string::npos) << open_files();
}

TEST(OpenFiles, ClosedDescriptorHasNone)
{
    const temporary_folder folder;
    unique_fd fd(platform::open_file(folder.write("f", "").c_str(), O_RDONLY));
    fd.reset();
    EXPECT_EQ(open_files().find(folder.path("f")), std::string::npos);
}

TEST(OpenFiles, DescriptorOfTheListingIsNotListed)
{
    EXPECT_EQ(open_files().find("/proc/"), std::string::npos) << open_files();
    EXPECT_EQ(open_files().find(": ?\n"), std::string::npos) << open_files();
}

TEST(OpenFiles, HostileNameStaysOnItsLine)
{
    const temporary_folder folder;
    const unique_fd fd(platform::open_file(folder.write("a\nb\x1B", "").c_str(), O_RDONLY));
    EXPECT_NE(open_files().find("/a\\x0Ab\\x1B\n"), std::string::npos) << open_files();
}

TEST(Adam7, PassesCoverEveryRowOfABlock)
{
    // The rows of an 8 x 8 block in each pass, by the PNG specification.
    const std::set<int> rows[7] = {{0}, {0}, {4}, {0, 4}, {2, 6}, {0, 2, 4, 6}, {1, 3, 5, 7}};
    for (size_t pass = 0; pass < 7; ++pass) {
        std::set<int> found;
        for (int y = adam7_yo[pass]; y < 8; y += adam7_ystep[pass]) {
            found.insert(y);
        }
        EXPECT_EQ(found, rows[pass]) << "pass " << pass + 1;
    }
}

TEST(GammaTable, HasTheLinearLightOfEverySample)
{
    dac8_gamma22_init_do();
    dac8_gamma22_init_do();
    for (size_t sample = 0; sample < 256; ++sample) {
        const double light = std::pow(static_cast<double>(sample) / 255.0, 2.2) * 65535.0;
        EXPECT_NEAR(platform::dac8_gamma22[sample], light, 0.5) << sample;
    }
    EXPECT_EQ(platform::dac8_gamma22[0], 0);
    EXPECT_EQ(platform::dac8_gamma22[255], 65535);
}

} // namespace
