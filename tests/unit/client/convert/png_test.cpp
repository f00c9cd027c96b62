// PNG files of pictures and of packed pixels, written to memory and to descriptors.
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <png.h>

#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"
#include "tests/unit/client/served_picture.h"

namespace {

struct read_png {
    uint32_t width = 0;
    uint32_t height = 0;
    bool alpha = false;
    std::vector<uint8_t> samples;
    bool operator==(const read_png&) const = default;
};

read_png read_back(const std::string& file)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_memory(&image, file.data(), file.size()), 0);
    read_png result = {image.width, image.height, image.format == PNG_FORMAT_RGBA, {}};
    result.samples.resize(PNG_IMAGE_SIZE(image));
    EXPECT_NE(png_image_finish_read(&image, nullptr, result.samples.data(), 0, nullptr), 0);
    return result;
}

read_png expected_of(const stillimage_picture& picture)
{
    const bool alpha = picture.plane[STILLIMAGE_A] != nullptr;
    const size_t row = size_t{picture.width} * (alpha ? 4 : 3);
    read_png result = {picture.width, picture.height, alpha, {}};
    result.samples.resize(row * picture.height);
    EXPECT_EQ(stillimage_picture_to_pixels(&picture, alpha ? STILLIMAGE_RGBA32 : STILLIMAGE_RGB24,
                                           picture.width, picture.height, result.samples.data(),
                                           row),
              STILLIMAGE_OK);
    return result;
}

std::string in_memory(const stillimage_picture& picture)
{
    uint8_t* file = nullptr;
    size_t size = 0;
    EXPECT_EQ(stillimage_picture_to_png(&picture, &file, &size), STILLIMAGE_OK);
    std::string result(reinterpret_cast<const char*>(file), size);
    stillimage_free(file);
    return result;
}

TEST(ConvertPng, PictureReadsBackAtEverySize)
{
    for (uint32_t size = 1; size < 12; ++size) {
        const served_picture served(
            {.full_width = size, .full_height = 13 - size, .alpha = size % 2 != 0});
        EXPECT_EQ(read_back(in_memory(served.picture)), expected_of(served.picture));
    }
}

TEST(ConvertPng, FileLargerThanTheFirstBufferReadsBack)
{
    const served_picture served({.full_width = 700, .full_height = 500});
    const std::string file = in_memory(served.picture);
    EXPECT_GT(file.size(), 200'000U);
    EXPECT_EQ(read_back(file), expected_of(served.picture));
}

TEST(ConvertPng, PackedPixelsKeepTheirValuesWhateverTheStride)
{
    std::vector<uint8_t> pixels(3 * 20);
    for (size_t i = 0; i < pixels.size(); ++i) {
        pixels[i] = static_cast<uint8_t>(i * 7);
    }
    uint8_t* file = nullptr;
    size_t size = 0;
    ASSERT_EQ(stillimage_pixels_to_png(STILLIMAGE_RGBA32, 4, 3, pixels.data(), 20, &file, &size),
              STILLIMAGE_OK);
    const read_png rgba = read_back({reinterpret_cast<const char*>(file), size});
    stillimage_free(file);
    EXPECT_EQ(rgba.width, 4U);
    EXPECT_TRUE(rgba.alpha);
    for (size_t i = 0; i < rgba.samples.size(); ++i) {
        EXPECT_EQ(rgba.samples[i], pixels[i / 16 * 20 + i % 16]);
    }
    ASSERT_EQ(stillimage_pixels_to_png(STILLIMAGE_RGB24, 20, 1, pixels.data(), 60, &file, &size),
              STILLIMAGE_OK);
    const read_png rgb = read_back({reinterpret_cast<const char*>(file), size});
    stillimage_free(file);
    EXPECT_FALSE(rgb.alpha);
    EXPECT_EQ(rgb.samples, pixels);
}

// --- descriptors ---------------------------------------------------------------------------------

TEST(ConvertPng, DescriptorReceivesTheSameFile)
{
    const served_picture served({.full_width = 300, .full_height = 200, .alpha = true});
    const temporary_folder folder;
    const int fd = open(folder.path("picture.png").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(stillimage_picture_write_png(&served.picture, fd), STILLIMAGE_OK);
    close(fd);
    EXPECT_EQ(folder.read("picture.png"), in_memory(served.picture));
}

TEST(ConvertPng, NonBlockingPipeIsWaitedFor)
{
    const served_picture served({.full_width = 700, .full_height = 500}); // more than a pipe holds
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    std::string read_by_other;
    std::thread reader([&] {
        char piece[4096];
        for (ssize_t got = 1; got > 0;) {
            got = read(ends[0], piece, sizeof piece);
            read_by_other.append(piece, got > 0 ? static_cast<size_t>(got) : 0);
        }
    });
    EXPECT_EQ(stillimage_picture_write_png(&served.picture, ends[1]), STILLIMAGE_OK);
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_EQ(read_by_other, in_memory(served.picture));
}

TEST(ConvertPng, PipeWithoutReaderIsAnErrorWithoutASignal)
{
    const served_picture served({});
    const int status = run_in_child([&] {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0 || close(ends[0]) != 0) {
            return 2;
        }
        signal(SIGPIPE, SIG_DFL); // would end the process if it were raised
        const bool failed =
            stillimage_picture_write_png(&served.picture, ends[1]) == STILLIMAGE_ERROR_SYSTEM &&
            errno == EPIPE;
        sigset_t blocked;
        sigset_t pending;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        sigpending(&pending);
        const bool as_before =
            sigismember(&blocked, SIGPIPE) == 0 && sigismember(&pending, SIGPIPE) == 0;
        return failed && as_before ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

TEST(ConvertPng, PendingSignalFromElsewhereStaysPending)
{
    const served_picture served({});
    const int status = run_in_child([&] {
        sigset_t only;
        sigset_t pending;
        sigemptyset(&only);
        sigaddset(&only, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &only, nullptr);
        raise(SIGPIPE);
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0 || close(ends[0]) != 0 ||
            stillimage_picture_write_png(&served.picture, ends[1]) != STILLIMAGE_ERROR_SYSTEM) {
            return 2;
        }
        sigpending(&pending);
        return sigismember(&pending, SIGPIPE) == 1 ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

TEST(ConvertPng, FullDiskIsReported)
{
    const served_picture served({});
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    EXPECT_EQ(stillimage_picture_write_png(&served.picture, full), STILLIMAGE_ERROR_SYSTEM);
    EXPECT_EQ(errno, ENOSPC);
    close(full);
    EXPECT_EQ(stillimage_picture_write_png(&served.picture, full), STILLIMAGE_ERROR_SYSTEM);
    EXPECT_EQ(errno, EBADF);
}

TEST(ConvertPng, InvalidArgumentsAreRefused)
{
    const served_picture served({.full_width = 5, .full_height = 3});
    const uint8_t pixels[12] = {};
    uint8_t mark = 0;
    uint8_t* file = &mark;
    size_t size = 1;
    EXPECT_EQ(stillimage_picture_to_png(nullptr, &file, &size), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(stillimage_picture_to_png(&served.picture, nullptr, &size),
              STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_picture_to_png(&served.picture, &file, nullptr),
              STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_picture_write_png(&served.picture, -1), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_picture_write_png(nullptr, 1), STILLIMAGE_ERROR_ARGUMENT);
    const auto packed = [&](uint32_t format, uint32_t width, uint32_t height, size_t stride) {
        return stillimage_pixels_to_png(format, width, height, pixels, stride, &file, &size);
    };
    EXPECT_EQ(packed(9, 2, 2, 6), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(packed(STILLIMAGE_RGB24, 0, 2, 6), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(packed(STILLIMAGE_RGB24, 2, 0, 6), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(packed(STILLIMAGE_RGB24, 2, 2, 5), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(packed(STILLIMAGE_RGB24, 2, 2, SIZE_MAX), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(packed(STILLIMAGE_RGB24, 2, 3, SIZE_MAX / 2 + 1), STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(stillimage_pixels_to_png(STILLIMAGE_RGB24, 2, 2, nullptr, 6, &file, &size),
              STILLIMAGE_ERROR_ARGUMENT);
    EXPECT_EQ(file, nullptr);
}

} // namespace
