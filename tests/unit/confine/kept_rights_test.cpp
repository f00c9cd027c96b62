#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/file_operations.h"
#include "platform/standalone/confine/kept_rights.h"
#include "platform/standalone/confine/sanitized_build.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

using platform::kept_rights;

using testing::ElementsAre;

namespace {

constexpr int record_size = 16;
constexpr off_t record_offset = 48;

class KeptRights : public testing::Test {
protected:
    void SetUp() override
    {
        if (platform::sanitized_build) {
            GTEST_SKIP() << "a process with a sanitizer is not confined";
        }
        if (run_in_child([] { return platform::restrict_arguments({}) ? 0 : 1; }) != 0) {
            GTEST_SKIP() << "this kernel or architecture cannot compare arguments";
        }
        folder.write("own", "own");
        folder.write("other", "another's");
        folder.write("registry", std::string(160, '.'));
        registry.reset(open(folder.path("registry").c_str(), O_RDWR | O_CLOEXEC));
    }

    // Runs `work` in a restricted child that keeps `own` and `new` in the folder.
    int restricted(const std::function<void()>& work) const
    {
        return run_in_child([&] {
            kept_rights rights;
            rights.registry = registry.get();
            rights.registry_offset = record_offset;
            rights.registry_size = record_size;
            EXPECT_TRUE(platform::keep_own_files({{{folder.fd()}, {"own", "new"}}}, rights));
            work();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }

    const platform::file_operations& files = platform::system_file_operations;
    temporary_folder folder;
    unique_fd registry;
};

TEST_F(KeptRights, OwnFilesAreRenamedAndRemoved)
{
    EXPECT_EQ(restricted([this] {
                  EXPECT_EQ(files.rename_at(folder.fd(), "own", "new"), 0);
                  EXPECT_EQ(files.rename_new_at(folder.fd(), "new", "own"), 0);
                  EXPECT_EQ(files.unlink_at(folder.fd(), "own"), 0);
              }),
              0);
    EXPECT_THAT(folder.names(), ElementsAre("other", "registry"));
}

TEST_F(KeptRights, OtherFilesAreNot)
{
    EXPECT_EQ(restricted([this] {
                  EXPECT_EQ(files.unlink_at(folder.fd(), "other"), -1);
                  EXPECT_EQ(errno, EPERM);
                  EXPECT_EQ(files.rename_at(folder.fd(), "other", "own"), -1);
                  EXPECT_EQ(files.rename_at(folder.fd(), "own", "other"), -1);
                  EXPECT_EQ(files.rename_new_at(folder.fd(), "own", "more"), -1);
                  EXPECT_EQ(unlink(folder.path("other").c_str()), -1);
                  EXPECT_EQ(rename(folder.path("own").c_str(), folder.path("other").c_str()), -1);
                  EXPECT_EQ(link(folder.path("own").c_str(), folder.path("more").c_str()), -1);
                  EXPECT_EQ(mkdir(folder.path("more").c_str(), 0700), -1);
                  EXPECT_EQ(unlinkat(folder.fd(), "own", 0), -1); // the text at another address
              }),
              0);
    EXPECT_THAT(folder.names(), ElementsAre("other", "own", "registry"));
}

TEST_F(KeptRights, FolderKeepsItsDescriptor)
{
    EXPECT_EQ(restricted([this] {
                  const int another = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
                  EXPECT_GE(another, 0);
                  EXPECT_EQ(close(folder.fd()), -1);
                  EXPECT_EQ(errno, EPERM);
                  EXPECT_EQ(dup2(another, folder.fd()), -1);
                  EXPECT_EQ(dup3(another, folder.fd(), O_CLOEXEC), -1);
#ifdef SYS_close_range
                  EXPECT_EQ(syscall(SYS_close_range, 0, ~0U, 0), -1);
#endif
                  EXPECT_EQ(close(another), 0);
                  EXPECT_EQ(files.unlink_at(folder.fd(), "own"), 0);
              }),
              0);
}

TEST_F(KeptRights, OnlyTheOwnRecordOfTheRegistryIsWritten)
{
    const std::string record(record_size, 'x');
    EXPECT_EQ(restricted([&] {
                  const int file = registry.get();
                  EXPECT_EQ(pwrite(file, record.data(), record_size, record_offset), record_size);
                  for (const off_t elsewhere : {off_t{0}, record_offset - 1, record_offset + 16}) {
                      EXPECT_EQ(pwrite(file, record.data(), record_size, elsewhere), -1);
                      EXPECT_EQ(errno, EPERM);
                  }
                  EXPECT_EQ(pwrite(file, record.data(), record_size, off_t{1} << 40), -1);
                  EXPECT_EQ(pwrite(file, record.data(), record_size + 1, record_offset), -1);
                  EXPECT_EQ(pwrite(file, record.data(), record_size - 1, record_offset), -1);
                  EXPECT_EQ(write(file, record.data(), record_size), -1);
                  EXPECT_EQ(ftruncate(file, 0), -1);
                  EXPECT_EQ(mmap(nullptr, 16, PROT_WRITE, MAP_SHARED, file, 0), MAP_FAILED);
                  EXPECT_EQ(dup(file), -1);
                  EXPECT_EQ(fcntl(file, F_DUPFD_CLOEXEC, 0), -1);
                  struct flock lock = {};
                  lock.l_type = F_WRLCK;
                  EXPECT_EQ(fcntl(file, F_OFD_SETLK, &lock), -1);
                  EXPECT_EQ(fcntl(file, F_OFD_GETLK, &lock), 0);
              }),
              0);
    EXPECT_EQ(folder.read("registry"),
              std::string(record_offset, '.') + record + std::string(160 - 64, '.'));
}

TEST_F(KeptRights, OtherFilesAndMemoryStayUsable)
{
    EXPECT_EQ(restricted([this] {
                  const int file = open(folder.path("other").c_str(), O_RDWR | O_CLOEXEC);
                  EXPECT_EQ(pwrite(file, "123", 3, 7), 3);
                  EXPECT_EQ(write(file, "123", 3), 3);
                  EXPECT_EQ(ftruncate(file, 5), 0);
                  const int copy = dup(file);
                  EXPECT_GE(copy, 0);
                  EXPECT_EQ(dup2(file, copy), copy);
                  EXPECT_EQ(close(copy), 0);
                  void* memory = mmap(nullptr, 8192, PROT_READ | PROT_WRITE,
                                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                  ASSERT_NE(memory, MAP_FAILED);
                  memory = mremap(memory, 8192, size_t{1} << 24, MREMAP_MAYMOVE);
                  ASSERT_NE(memory, MAP_FAILED);
                  EXPECT_EQ(mprotect(memory, 4096, PROT_READ), 0);
                  EXPECT_EQ(madvise(memory, 4096, MADV_DONTNEED), 0);
                  EXPECT_EQ(munmap(memory, size_t{1} << 24), 0);
              }),
              0);
}

TEST_F(KeptRights, NamesStayWhereTheyAre)
{
    EXPECT_EQ(
        restricted([this] {
            auto* names = const_cast<char*>(platform::kept_name(folder.fd(), "own"));
            EXPECT_EQ(munmap(names, 4096), -1);
            EXPECT_EQ(munmap(nullptr, size_t{1} << 40), -1);
            EXPECT_EQ(mmap(names, 4096, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0),
                      MAP_FAILED);
            EXPECT_EQ(mremap(names, 4096, 4096, MREMAP_MAYMOVE), MAP_FAILED);
            void* memory =
                mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            EXPECT_EQ(mremap(memory, 4096, 4096, MREMAP_MAYMOVE | MREMAP_FIXED, names), MAP_FAILED);
            EXPECT_EQ(madvise(names, 4096, MADV_DONTFORK), -1);
            EXPECT_STREQ(names, "own");
        }),
        0);
}

TEST_F(KeptRights, OnlyTheConnectedManagerGetsMessages)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    folder.path("manager").copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    const unique_fd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const unique_fd ours(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(manager.get(), name, sizeof address), 0);
    ASSERT_EQ(connect(ours.get(), name, sizeof address), 0);
    EXPECT_EQ(run_in_child([&] {
                  kept_rights rights;
                  rights.manager = ours.get();
                  EXPECT_TRUE(platform::keep_own_files({{{folder.fd()}, {"own"}}}, rights));
                  EXPECT_EQ(send(ours.get(), "x", 1, MSG_DONTWAIT), 1);
                  EXPECT_EQ(sendto(ours.get(), "x", 1, MSG_DONTWAIT, name, sizeof address), -1);
                  msghdr message = {};
                  EXPECT_EQ(sendmsg(ours.get(), &message, MSG_DONTWAIT), -1);
                  EXPECT_EQ(errno, EPERM);
                  EXPECT_EQ(dup(ours.get()), -1);
                  EXPECT_EQ(dup2(ours.get(), 100), -1);
                  EXPECT_EQ(fcntl(ours.get(), F_DUPFD, 0), -1);
                  EXPECT_EQ(recvmsg(ours.get(), &message, MSG_DONTWAIT), -1);
                  EXPECT_EQ(errno, EPERM);
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(KeptRights, NothingIsRestrictedWithoutNames)
{
    EXPECT_EQ(run_in_child([this] {
                  EXPECT_FALSE(platform::keep_own_files({}, {}));
                  EXPECT_EQ(files.unlink_at(folder.fd(), "other"), 0);
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

} // namespace
