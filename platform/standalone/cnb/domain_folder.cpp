#include "platform/standalone/cnb/domain_folder.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/fd_io.h"
#include "platform/standalone/base/folders.h"
#include "wire/item_paths.h"

namespace platform {

namespace {

constexpr mode_t private_mode = 0700;

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

domain_folder step_into(const domain_folder& parent, const std::string& name)
{
    std::string path = parent.path + "/" + name;
    if (mkdirat(parent.folder.get(), name.c_str(), private_mode) != 0 && errno != EEXIST) {
        return failure(std::move(path), error_text(errno));
    }
    std::string reason;
    unique_fd folder = open_private_folder(parent.folder.get(), name.c_str(),
                                           readable_folder::MADE_PRIVATE, &reason);
    if (!folder) {
        return failure(std::move(path), std::move(reason));
    }
    return {std::move(folder), std::move(path), ""};
}

} // namespace

domain_folder open_domain_folder(const std::string& domain)
{
    const std::string ours = item_paths::runtime_folder();
    const size_t slash = ours.rfind('/');
    std::string base = ours.substr(0, slash);
    unique_fd base_folder = open_base(base);
    if (!base_folder) {
        return failure(std::move(base), error_text(errno));
    }
    domain_folder folder = {std::move(base_folder), std::move(base), ""};
    for (const std::string& name : {ours.substr(slash + 1), std::string("cnb"), domain}) {
        folder = step_into(folder, name);
        if (!folder.folder) {
            break;
        }
    }
    return folder;
}

} // namespace platform
