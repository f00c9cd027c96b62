#include <algorithm>
#include <cerrno>
#include <sys/mman.h>
#include <unistd.h>

#include "bin/examine/picture_input.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

constexpr size_t file_size = 100;

class PictureInput : public ExamineFixture {
protected:
    void SetUp() override
    {
        ExamineFixture::SetUp();
        fd_ = memfd_create("input", MFD_CLOEXEC);
        for (size_t i = 0; i < file_size; ++i) {
            const auto byte = static_cast<unsigned char>(i);
            ASSERT_EQ(pwrite(fd_, &byte, 1, static_cast<off_t>(i)), 1);
        }
        input = open_picture_input(fd_);
    }

    void TearDown() override
    {
        close(fd_);
        ExamineFixture::TearDown();
    }

    // Expects a read of `wanted` bytes to return `count` bytes of the file from `first` on.
    void expect_bytes(size_t wanted, size_t first, size_t count)
    {
        unsigned char bytes[file_size + 1] = {};
        ASSERT_EQ(read_picture(&input, bytes, wanted), count);
        for (size_t i = 0; i < count; ++i) {
            ASSERT_EQ(bytes[i], first + i);
        }
    }

    void seek(off_t place) { ASSERT_EQ(lseek(fd_, place, SEEK_SET), place); }

    static void fail_read(int which, int error)
    {
        failing_calls::plan.read = which;
        failing_calls::plan.read_errno = error;
    }

    picture_input input = {};

private:
    int fd_ = -1;
};

TEST_F(PictureInput, ReadsFromTheCurrentPositionToTheEnd)
{
    expect_bytes(60, 0, 60);
    expect_bytes(60, 60, 40);
    expect_bytes(60, 0, 0);
    EXPECT_EQ(printed(), "");
}

TEST_F(PictureInput, ShortReadsAreContinued)
{
    failing_calls::plan.max_read = 7;
    expect_bytes(file_size, 0, file_size);
}

TEST_F(PictureInput, InterruptedReadsAreRetried)
{
    failing_calls::plan.max_read = 30;
    fail_read(2, EINTR);
    expect_bytes(file_size, 0, file_size);
    fail_read(1, EINTR);
    expect_bytes(1, 0, 0);
    EXPECT_EQ(printed(), "");
}

TEST_F(PictureInput, ErrorIsReportedWithItsReasonAndEndsTheFile)
{
    failing_calls::plan.max_read = 30;
    fail_read(3, EIO);
    expect_bytes(file_size, 0, 60);
    EXPECT_EQ(printed(), "Error while reading the picture: Input/output error\n");
    expect_bytes(file_size, 0, 0); // although the next read would succeed
    seek(90);
    expect_bytes(1, 0, 0);
    seek(50);
    expect_bytes(file_size, 50, 10);
    seek(0);
    expect_bytes(20, 0, 20);
    EXPECT_EQ(printed(), "");
}

TEST_F(PictureInput, SecondErrorIsNotReported)
{
    seek(80);
    fail_read(1, EIO);
    expect_bytes(1, 0, 0);
    seek(0);
    failing_calls::plan.max_read = 10;
    fail_read(3, ESTALE);
    expect_bytes(50, 0, 20);
    EXPECT_EQ(printed(), "Error while reading the picture: Input/output error\n");
    seek(30);
    expect_bytes(1, 0, 0);
}

TEST_F(PictureInput, UnreadableDescriptorIsAnEmptyFile)
{
    input = open_picture_input(-1);
    expect_bytes(1, 0, 0);
    expect_bytes(1, 0, 0);
    EXPECT_EQ(printed(), "Error while reading the picture: Bad file descriptor\n");
}

} // namespace
