#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

int open_and_close(const std::string& path, int flags)
{
    const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600);
    if (fd < 0) {
        return errno;
    }
    close(fd);
    return 0;
}

int read_file(const std::string& path)
{
    return open_and_close(path, O_RDONLY);
}

int list_folder(const std::string& path)
{
    return open_and_close(path, O_RDONLY | O_DIRECTORY);
}

int write_file(const std::string& path)
{
    return open_and_close(path, O_WRONLY);
}

int create_file(const std::string& path)
{
    return open_and_close(path, O_WRONLY | O_CREAT | O_EXCL);
}

int truncate_file(const std::string& path)
{
    return open_and_close(path, O_WRONLY | O_TRUNC);
}

int remove_file(const std::string& path)
{
    return outcome(unlink(path.c_str()));
}

int make_folder(const std::string& path)
{
    return outcome(mkdir(path.c_str(), 0700));
}

int remove_folder(const std::string& path)
{
    return outcome(rmdir(path.c_str()));
}

int make_fifo(const std::string& path)
{
    return outcome(mkfifo(path.c_str(), 0600));
}

int link_to_etc(const std::string& path)
{
    return outcome(symlink("/etc", path.c_str()));
}

int change_mode(const std::string& path)
{
    return outcome(chmod(path.c_str(), 0));
}

int change_times(const std::string& path)
{
    return outcome(utimensat(AT_FDCWD, path.c_str(), nullptr, 0));
}

int rename_file(const std::string& paths)
{
    const size_t colon = paths.find(':');
    return outcome(rename(paths.substr(0, colon).c_str(), paths.substr(colon + 1).c_str()));
}

int link_file(const std::string& paths)
{
    const size_t colon = paths.find(':');
    return outcome(link(paths.substr(0, colon).c_str(), paths.substr(colon + 1).c_str()));
}

// A new file whose size is the number after the colon; allowed when it could have that size.
int create_large_file(const std::string& path_and_size)
{
    const size_t colon = path_and_size.find(':');
    const std::string path = path_and_size.substr(0, colon);
    const off_t size = std::stoll(path_and_size.substr(colon + 1));
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return errno;
    }
    const int result = outcome(pwrite(fd, "x", 1, size - 1));
    close(fd);
    return result;
}

constexpr attempt attempts[] = {
    {"read", read_file},
    {"list", list_folder},
    {"write", write_file},
    {"create", create_file},
    {"truncate", truncate_file},
    {"remove", remove_file},
    {"make_folder", make_folder},
    {"remove_folder", remove_folder},
    {"make_fifo", make_fifo},
    {"make_link", link_to_etc},
    {"change_mode", change_mode},
    {"change_times", change_times},
    {"rename", rename_file},
    {"link", link_file},
    {"create_large", create_large_file},
};

} // namespace

std::span<const attempt> file_attempts()
{
    return attempts;
}

} // namespace attack
