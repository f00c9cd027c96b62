// The example programs with real workers.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include "tests/support/child_process.h"
#include "tests/support/environment.h"
#include "tests/support/gif_writer.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string picture = STILLIMAGE_TEST_DATA "/jpeg/landscape-420.jpg";

class Examples : public testing::Test {
protected:
    Examples() : environment_(home.environment())
    {
        environment_.set("STILLIMAGE_PROGRAM", STILLIMAGE_PROGRAM);
        environment_.set("STILLIMAGE_CLIENT_LIBRARY", STILLIMAGE_CLIENT_LIBRARY);
    }

    // Work for a child process: runs the program with its output in the file "printed".
    std::function<int()> program(std::vector<std::string> words)
    {
        return [this, words]() mutable {
            const int out = open(home.path("printed").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            std::vector<char*> pointers;
            for (std::string& word : words) {
                pointers.push_back(word.data());
            }
            pointers.push_back(nullptr);
            execvp(pointers[0], pointers.data());
            return 127;
        };
    }
    std::string printed() const { return home.folder().read("printed"); }
    bool prints(const std::string& text) const
    {
        return eventually([&] { return printed().find(text) != std::string::npos; });
    }

    worker_home home;

private:
    changed_environment environment_;
};

// The preview that the library makes from the same worker.
std::string expected_ppm(const std::string& file, uint32_t width, uint32_t height, int wanted_width,
                         int wanted_height)
{
    stillimage_client* made = nullptr;
    EXPECT_EQ(stillimage_connect_picture(file.c_str(), 0, 30'000, &made), STILLIMAGE_OK);
    const held_client client(made);
    const held_frame frame = take_frame(client, 0, wanted_width, wanted_height);
    std::string rgb(size_t{width} * height * 3, '\0');
    EXPECT_EQ(stillimage_picture_to_pixels(stillimage_frame_picture(frame.get()), STILLIMAGE_RGB24,
                                           width, height, reinterpret_cast<uint8_t*>(rgb.data()),
                                           size_t{width} * 3),
              STILLIMAGE_OK);
    return "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n" + rgb;
}

TEST_F(Examples, WatchPrintsChangesSavesAPreviewAndEndsWithItsWorker)
{
    child_process watch(program({EXAMPLE_WATCH, picture, home.path("preview.ppm")}));
    ASSERT_TRUE(prints("wrote ")) << printed(); // it starts a worker
    EXPECT_THAT(printed(), HasSubstr("(ready)\n"));
    EXPECT_THAT(printed(), HasSubstr("preview.ppm, 320 x "));
    const std::string ppm = home.folder().read("preview.ppm");
    const auto height = static_cast<uint32_t>(std::stoul(ppm.substr(7)));
    EXPECT_TRUE(ppm == expected_ppm(picture, 320, height, 320, 240));

    stillimage_client* made = nullptr;
    ASSERT_EQ(stillimage_connect_picture(picture.c_str(), 0, 30'000, &made), STILLIMAGE_OK);
    const held_client client(made);
    EXPECT_EQ(stillimage_set_metadata(made, "aspect ratio", "4:3", 30'000), STILLIMAGE_OK);
    EXPECT_TRUE(eventually([&] {
        const std::string text = printed();
        return text.find("wrote ") != text.rfind("wrote ");
    })) << printed();
    EXPECT_EQ(stillimage_quit(made, 30'000), STILLIMAGE_OK);
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_THAT(printed(), HasSubstr("the worker has gone\n"));
}

TEST_F(Examples, WatchReportsWhyThereIsNothingToWatch)
{
    const std::string text = home.folder().write("text.jpg", "no picture");
    EXPECT_EQ(run_in_child(program({EXAMPLE_WATCH, text, home.path("preview.ppm")})), 1);
    EXPECT_THAT(printed(), HasSubstr("does not serve " + text));
    EXPECT_EQ(run_in_child(program({EXAMPLE_WATCH})), 2);
}

TEST_F(Examples, FramesAreWrittenWithTheirTimes)
{
    gif_spec spec = {.width = 800, .height = 200, .frames = {}};
    for (const unsigned delay : {50U, 120U, 30U}) {
        const unsigned char shade = delay == 120 ? 1 : 0;
        spec.frames.push_back(uniform_gif_frame(800, 200, shade, delay));
    }
    const std::vector<unsigned char> file = write_gif(spec);
    const std::string gif =
        home.folder().write("film.gif", {reinterpret_cast<const char*>(file.data()), file.size()});
    const worker served(home, {{"--file", gif, "--no-autoshutdown"}});
    EXPECT_EQ(run_in_child(program({EXAMPLE_FRAMES, gif, home.path("made")})), 0) << printed();
    EXPECT_EQ(printed(), "0001.png from 0 s for 0.5 s\n"
                         "0002.png from 0.5 s for 1.2 s\n"
                         "0003.png from 1.7 s for 0.3 s\n");
    for (const int number : {1, 2, 3}) {
        const std::string png = home.folder().read("made/000" + std::to_string(number) + ".png");
        png_image image = {};
        image.version = PNG_IMAGE_VERSION;
        ASSERT_NE(png_image_begin_read_from_memory(&image, png.data(), png.size()), 0);
        EXPECT_EQ(image.width, 400U);
        EXPECT_EQ(image.height, 100U);
        image.format = PNG_FORMAT_RGB;
        std::vector<unsigned char> rgb(PNG_IMAGE_SIZE(image));
        ASSERT_NE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr), 0);
        EXPECT_TRUE(rgb == std::vector<unsigned char>(rgb.size(), number == 2 ? 255 : 0));
    }
}

TEST_F(Examples, FramesReportsWhatFailed)
{
    EXPECT_EQ(run_in_child(program({EXAMPLE_FRAMES, home.path("none.gif"), home.path("")})), 1);
    EXPECT_THAT(printed(), HasSubstr("none.gif"));
    const worker served(home, {{"--file", picture, "--no-autoshutdown"}});
    std::filesystem::create_directories(home.path("made/0001.png"));
    EXPECT_EQ(run_in_child(program({EXAMPLE_FRAMES, picture, home.path("made")})), 1);
    EXPECT_THAT(printed(), HasSubstr("cannot write " + home.path("made/0001.png")));
    EXPECT_EQ(run_in_child(program({EXAMPLE_FRAMES})), 2);
}

class PythonExample : public Examples {
protected:
    void SetUp() override
    {
        if (std::string(PYTHON).empty()) {
            GTEST_SKIP() << "there is no Python, or it cannot load a library with sanitizers";
        }
    }
};

TEST_F(PythonExample, DescribesAndSavesThePicture)
{
    const worker served(home, {{"--file", picture, "--no-autoshutdown"}});
    ASSERT_EQ(run_in_child(program(
                  {PYTHON, EXAMPLE_PICTURE, picture, home.path("preview.ppm"), "100", "70"})),
              0)
        << printed();
    EXPECT_EQ(printed(), "image/jpeg: 100 x 70, 1 units long\n");
    EXPECT_TRUE(home.folder().read("preview.ppm") == expected_ppm(picture, 100, 70, 100, 70));
}

TEST_F(PythonExample, ReportsWhatFailed)
{
    EXPECT_EQ(run_in_child(program(
                  {PYTHON, EXAMPLE_PICTURE, home.path("none.jpg"), home.path("preview.ppm")})),
              1);
    EXPECT_THAT(printed(), HasSubstr("none.jpg"));
    EXPECT_EQ(run_in_child(program({PYTHON, EXAMPLE_PICTURE})), 2);
}

} // namespace
