#include "platform/standalone/cnb/domain_folder.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/folders.h"

namespace platform {

namespace {

constexpr mode_t private_mode = 0700;
constexpr mode_t writable_by_others = 0022;
constexpr mode_t open_to_others = 0077;

// The variable's value when it is an absolute path, otherwise null.
const char* absolute_path_in(const char* variable)
{
    const char* path = getenv(variable);
    return path != nullptr && path[0] == '/' ? path : nullptr;
}

domain_folder failure(std::string path, std::string reason)
{
    domain_folder result;
    result.path = std::move(path);
    result.reason = std::move(reason);
    return result;
}

unique_fd open_base(const std::string& path)
{
    unique_fd folder(open_file(path.c_str(), O_PATH | O_DIRECTORY));
    if (!folder && errno == ENOENT && make_folders(path.c_str()) == 0) {
        folder.reset(open_file(path.c_str(), O_PATH | O_DIRECTORY));
    }
    return folder;
}

// Why an open folder may not be ours, or "" after making sure that it is private.
std::string make_private(int folder)
{
    struct stat status = {};
    if (fstat(folder, &status) != 0) {
        return error_text(errno);
    }
    if (status.st_uid != geteuid()) {
        return "owned by another user";
    }
    if ((status.st_mode & writable_by_others) != 0) {
        return "writable by other users";
    }
    if ((status.st_mode & open_to_others) != 0 && fchmod(folder, private_mode) != 0) {
        return error_text(errno);
    }
    return "";
}

domain_folder step_into(const domain_folder& parent, const std::string& name)
{
    std::string path = parent.path + "/" + name;
    if (mkdirat(parent.folder.get(), name.c_str(), private_mode) != 0 && errno != EEXIST) {
        return failure(std::move(path), error_text(errno));
    }
    unique_fd folder(
        open_file_at(parent.folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (!folder) {
        const bool link = errno == ELOOP || errno == ENOTDIR;
        return failure(std::move(path), link ? "not a folder, or a link" : error_text(errno));
    }
    std::string reason = make_private(folder.get());
    if (!reason.empty()) {
        return failure(std::move(path), std::move(reason));
    }
    return {std::move(folder), std::move(path), ""};
}

} // namespace

domain_folder open_domain_folder(const std::string& domain)
{
    const char* runtime = absolute_path_in("XDG_RUNTIME_DIR");
    const char* temporary = absolute_path_in("TMPDIR");
    std::string base = runtime != nullptr ? runtime : temporary != nullptr ? temporary : "/tmp";
    const std::string ours =
        runtime != nullptr ? "stillimage" : "stillimage-" + std::to_string(geteuid());

    unique_fd base_folder = open_base(base);
    if (!base_folder) {
        return failure(std::move(base), error_text(errno));
    }
    domain_folder folder = {std::move(base_folder), std::move(base), ""};
    for (const std::string& name : {ours, std::string("cnb"), domain}) {
        folder = step_into(folder, name);
        if (!folder.folder) {
            break;
        }
    }
    return folder;
}

} // namespace platform
