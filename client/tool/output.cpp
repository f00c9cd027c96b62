#include "client/tool/output.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/tool/session.h"
#include "common/unique_fd.h"
#include "wire/utf8.h"

namespace {

bool write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return true;
}

bool fail_with_errno(const std::string& what)
{
    print_error(what + ": " + strerror(errno));
    return false;
}

// The mode that a newly created file would have.
mode_t usual_mode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

bool replace_file(const std::string& path, std::string_view bytes)
{
    std::string temporary = path + ".XXXXXX";
    const unique_fd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file) {
        return fail_with_errno("cannot write " + path);
    }
    if (!write_all(file.get(), bytes) || fchmod(file.get(), usual_mode()) != 0 ||
        rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        errno = error;
        return fail_with_errno("cannot write " + path);
    }
    return true;
}

bool is_special(const std::string& path)
{
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
}

bool write_special(const std::string& path, std::string_view bytes)
{
    const unique_fd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return (file && write_all(file.get(), bytes)) || fail_with_errno("cannot write " + path);
}

} // namespace

bool print_text(std::string_view text)
{
    return write_all(STDOUT_FILENO, text) || fail_with_errno("cannot write to standard output");
}

bool print_line(const std::string& text)
{
    const bool terminal = isatty(STDOUT_FILENO) != 0;
    return print_text((terminal ? wire::escape_controls(text) : text) + "\n");
}

bool output_takes_bytes()
{
    if (isatty(STDOUT_FILENO) != 0) {
        print_error("a picture is no text for a terminal (name a file, or send the output on)");
        return false;
    }
    return true;
}

bool write_result(const std::string& path, std::string_view bytes)
{
    if (path == "-") {
        return output_takes_bytes() && print_text(bytes);
    }
    return is_special(path) ? write_special(path, bytes) : replace_file(path, bytes);
}

bool ends_in(std::string_view path, std::string_view ending)
{
    return path.size() >= ending.size() &&
           strncasecmp(path.substr(path.size() - ending.size()).data(), ending.data(),
                       ending.size()) == 0;
}

bool make_folder(const std::string& path)
{
    struct stat info = {};
    if (mkdir(path.c_str(), 0777) == 0 ||
        (errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))) {
        return true;
    }
    return fail_with_errno("cannot make the folder " + path);
}
