// The output of `play`, read back by ffmpeg: every kind of picture, frame by frame.
#include <array>
#include <cstdio>
#include <memory>

#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/gif_writer.h"
#include "tests/support/webp_writer.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

namespace {

// Standard output of a shell command. `status` receives what pclose returns.
std::string output_of(const std::string& command, int* status)
{
    FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    std::array<char, 65536> piece = {};
    for (size_t got = 1; got > 0;) {
        got = fread(piece.data(), 1, piece.size(), pipe);
        text.append(piece.data(), got);
    }
    *status = pclose(pipe);
    return text;
}

// Width, height, pixel format, range, rate, duration and number of frames.
std::string probed(const std::string& path)
{
    int status = 0;
    std::string text = output_of("ffprobe -v error -count_frames -show_entries stream=width,height,"
                                 "pix_fmt,color_range,sample_aspect_ratio,r_frame_rate,duration,"
                                 "nb_read_frames -of compact=nk=1:p=0 " +
                                     path,
                                 &status);
    EXPECT_EQ(status, 0) << "ffprobe is part of ffmpeg";
    return text;
}

std::string read_back(const std::string& path)
{
    int status = 0;
    std::string planes =
        output_of("ffmpeg -v error -nostdin -i " + path + " -f rawvideo -", &status);
    EXPECT_EQ(status, 0) << "scripts/setup installs ffmpeg";
    return planes;
}

// Appends the visible samples of a plane. With `spread`, chroma is repeated for every pixel.
void append_plane(const stillimage_picture& picture, int plane, bool spread, std::string* to)
{
    const bool chroma = plane == STILLIMAGE_U || plane == STILLIMAGE_V;
    const unsigned x_shift = chroma && spread ? picture.chroma_x_shift : 0;
    const unsigned y_shift = chroma && spread ? picture.chroma_y_shift : 0;
    const uint32_t width = spread ? picture.width : picture.plane_width[plane];
    const uint32_t height = spread ? picture.height : picture.plane_height[plane];
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const uint64_t at = uint64_t{y >> y_shift} * picture.stride[plane] + (x >> x_shift);
            *to += static_cast<char>(picture.plane[plane][at]);
        }
    }
}

// A worker, its client, and the expected contents of its frames.
class Play : public testing::Test {
protected:
    void serve(const std::string& picture)
    {
        served_.reset();
        client_.reset();
        served_ = std::make_unique<worker>(home_, picture);
        ASSERT_TRUE(served_->wait_ready()) << served_->printed();
        stillimage_client* client = nullptr;
        ASSERT_EQ(stillimage_connect(served_->socket().c_str(), 30'000, &client), STILLIMAGE_OK);
        client_.reset(client);
    }
    void serve(const std::string& name, const std::vector<unsigned char>& bytes)
    {
        home_.folder().write(name, std::string(bytes.begin(), bytes.end()));
        serve(home_.path(name));
    }

    // The planes of the frame shown at `moment`, as ffmpeg writes them in this pixel format.
    std::string frame_at(uint64_t moment, const std::string& format)
    {
        stillimage_frame* taken = nullptr;
        EXPECT_EQ(stillimage_get_frame(client_.get(), moment, 0, 0, 30'000, &taken), STILLIMAGE_OK);
        const held_frame frame(taken);
        const stillimage_picture& picture = *stillimage_frame_picture(taken);
        const bool alpha = format == "yuva444p";
        const bool spread = alpha || format == "yuv444p";
        std::string planes;
        for (const int plane : {STILLIMAGE_Y, STILLIMAGE_U, STILLIMAGE_V, STILLIMAGE_A}) {
            if (picture.plane[plane] != nullptr) {
                append_plane(picture, plane, spread, &planes);
            } else if (plane == STILLIMAGE_A && alpha) {
                planes.append(size_t{picture.width} * picture.height, '\xFF');
            }
        }
        return planes;
    }

    // Plays into a file and reads it back: it holds the frames shown at these moments.
    void expect_played(const std::vector<std::string>& arguments, const std::string& format,
                       const std::string& properties, const std::vector<uint64_t>& moments)
    {
        std::vector<std::string> call = {served_->socket(), "play", "--no-pace"};
        call.insert(call.end(), arguments.begin(), arguments.end());
        std::string stream;
        ASSERT_EQ(run_client(home_, call, &stream), 0);
        const std::string path = home_.folder().write("stream.y4m", stream);
        EXPECT_EQ(probed(path), properties);
        std::string expected;
        for (const uint64_t moment : moments) {
            expected += frame_at(moment, format);
        }
        EXPECT_TRUE(read_back(path) == expected) << "planes differ";
    }

    // Three frames of a still.
    void expect_still(const std::string& size, const std::string& format)
    {
        expect_played({"--loop", "1", "--fps", "3"}, format,
                      size + "|1:1|" + format + "|tv|3/1|1.000000|3\n", {0, 0, 0});
    }

    // The call for the shell.
    std::string play() const { return STILLIMAGE_CLIENT_PROGRAM " " + served_->socket() + " play"; }

    worker_home home_;
    std::unique_ptr<worker> served_;
    held_client client_;
};

std::string data(const char* name)
{
    return std::string(STILLIMAGE_TEST_DATA "/") + name;
}

// RGBA pixels of varying colours, all opaque or of varying alpha.
std::vector<unsigned char> colours(int width, int height, bool opaque)
{
    std::vector<unsigned char> rgba;
    for (int i = 0; i < width * height; ++i) {
        rgba.insert(rgba.end(),
                    {static_cast<unsigned char>(i * 7), static_cast<unsigned char>(i * 3),
                     static_cast<unsigned char>(255 - i),
                     static_cast<unsigned char>(opaque ? 255 : i * 11)});
    }
    return rgba;
}

TEST_F(Play, JpegsOfEverySubsampling)
{
    const struct {
        const char* name;
        const char* size;
        const char* format;
    } pictures[] = {
        {"jpeg/peacock-grey.jpg", "100|75", "gray"}, {"jpeg/peacock-420.jpg", "100|75", "yuv420p"},
        {"jpeg/size-17x17.jpg", "17|17", "yuv420p"}, {"jpeg/peacock-422.jpg", "100|75", "yuv422p"},
        {"jpeg/ycck-440.jpg", "71|53", "yuv444p"},   {"jpeg/peacock-444.jpg", "100|75", "yuv444p"}};
    for (const auto& picture : pictures) {
        SCOPED_TRACE(picture.name);
        serve(data(picture.name));
        expect_still(picture.size, picture.format);
    }
}

TEST_F(Play, PngWithAlpha)
{
    serve(data("png/basn6a08.png"));
    expect_still("32|32", "yuva444p");
}

TEST_F(Play, WebPsOfOddSizes)
{
    serve("opaque.webp", lossy_webp(17, 13, colours(17, 13, true), 80));
    expect_still("17|13", "yuv420p");
    serve("alpha.webp", lossy_webp(17, 13, colours(17, 13, false), 80));
    expect_still("17|13", "yuva444p");
}

// Three frames, shown for 50, 10 (the file has no delay) and 20 hundredths of a second. The third
// is transparent.
std::vector<unsigned char> animated_gif()
{
    gif_spec spec = {.width = 5, .height = 3};
    spec.frames = {uniform_gif_frame(5, 3, 0, 50), uniform_gif_frame(5, 3, 1, 0),
                   uniform_gif_frame(5, 3, 0, 20)};
    spec.frames[1].control->disposal = 2;
    spec.frames[1].control->transparent = 3;
    spec.frames[2].control->transparent = 0;
    return write_gif(spec);
}

TEST_F(Play, AnimationByItsTimelineTwiceThrough)
{
    serve("animation.gif", animated_gif());
    ASSERT_NE(frame_at(0, "yuva444p"), frame_at(50, "yuva444p"));
    ASSERT_NE(frame_at(50, "yuva444p"), frame_at(60, "yuva444p"));
    expect_played({"--loop", "2"}, "yuva444p", "5|3|1:1|yuva444p|tv|10/1|1.600000|16\n",
                  {0, 10, 20, 30, 40, 50, 60, 70, 0, 10, 20, 30, 40, 50, 60, 70});
}

TEST_F(Play, AnimationAtAGivenRateKeepsItsSpeed)
{
    serve("animation.gif", animated_gif());
    expect_played({"--loop", "1", "--fps", "25"}, "yuva444p",
                  "5|3|1:1|yuva444p|tv|25/1|0.800000|20\n",
                  {0, 4, 8, 12, 16, 20, 24, 28, 32, 36, 40, 44, 48, 52, 56, 60, 64, 68, 72, 76});
}

TEST_F(Play, AnimationThroughAPipe)
{
    serve("animation.gif", animated_gif());
    int status = 0;
    const std::string planes =
        output_of(play() + " --loop 1 | ffmpeg -v error -i - -f rawvideo -", &status);
    EXPECT_EQ(status, 0);
    std::string expected;
    for (uint64_t moment = 0; moment < 80; moment += 10) {
        expected += frame_at(moment, "yuva444p");
    }
    EXPECT_TRUE(planes == expected) << "planes differ";
}

TEST_F(Play, ReaderThatStopsEndsAnEndlessStreamQuietly)
{
    serve("animation.gif", animated_gif());
    int status = 0;
    const std::string first_bytes = output_of("(" + play() + " --no-pace; echo $? >&2) 2>" +
                                                  home_.path("status") + " | head -c 9",
                                              &status);
    EXPECT_EQ(first_bytes, "YUV4MPEG2");
    EXPECT_TRUE(eventually([&] { return home_.folder().read("status") == "0\n"; }))
        << home_.folder().read("status");
}

} // namespace
