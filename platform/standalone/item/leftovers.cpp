#include "platform/standalone/item/leftovers.h"

#include <cstdlib>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/standalone/base/file_lock.h"
#include "platform/standalone/base/folders.h"
#include "platform/standalone/comm/listener.h"
#include "platform/standalone/item/serve_lock.h"
#include "wire/item_paths.h"
#include "wire/socket_address.h"

namespace platform {

namespace {

bool is_ours(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && status.st_uid == geteuid();
}

struct free_memory {
    void operator()(char* text) const { free(text); }
};

} // namespace

void remove_dead_socket(const std::string& socket)
{
    if (!wire::is_socket_path(socket)) {
        return;
    }
    if ((is_ours(socket) || is_ours(socket + lock_suffix)) && take_serve_lock(socket)) {
        clear_socket_path(socket);
        release_serve_lock();
    }
}

void remove_half_written_metadata(const metadata_store& store)
{
    file_lock writers;
    if (writers.take(store.folder, metadata_lock_name, 0) == lock_result::TAKEN) {
        remove_left_temporaries(store);
    }
}

void remove_half_written_metadata(const std::string& folder)
{
    const unique_fd opened = open_folder(folder.c_str());
    // Writers create the lock file first. Without it there are no remains; and it must not be
    // created in a folder that may belong to anybody.
    if (opened && faccessat(opened.get(), metadata_lock_name, F_OK, 0) == 0) {
        metadata_store store;
        store.folder = opened.get();
        store.path = folder + '/' + metadata_file_name;
        remove_half_written_metadata(store);
    }
}

// The real path of a missing file cannot be resolved; unless the file was a link, it is the real
// path of its folder.
std::string name_of_missing_picture(const std::string& picture)
{
    const size_t slash = picture.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : picture.substr(0, slash + 1);
    const std::unique_ptr<char, free_memory> real(realpath(folder.c_str(), nullptr));
    if (real == nullptr) {
        return "";
    }
    const std::string above = real.get() == std::string("/") ? "" : real.get();
    return item_paths::name_of_real_path(above + '/' + picture.substr(slash + 1));
}

} // namespace platform
