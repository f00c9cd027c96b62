#include "platform/standalone/item/leftovers.h"

#include <cstdlib>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/item_paths.h"
#include "platform/standalone/base/file_lock.h"
#include "platform/standalone/comm/listener.h"
#include "platform/standalone/item/serve_lock.h"

namespace item {

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
    if (socket.empty() || socket.size() > item_paths::longest_socket_path) {
        return;
    }
    if ((is_ours(socket) || is_ours(socket + lock_suffix)) && take_serve_lock(socket)) {
        platform::clear_socket_path(socket);
        release_serve_lock();
    }
}

void remove_half_written_metadata(const platform::metadata_store& store)
{
    platform::file_lock writers;
    if (writers.take(store.folder, platform::metadata_lock_name, 0) ==
        platform::lock_result::TAKEN) {
        platform::remove_left_temporaries(store);
    }
}

// Its real path cannot be asked for any more; without a link in its own place it is its folder's.
std::string socket_of_missing_picture(const std::string& picture)
{
    const size_t slash = picture.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : picture.substr(0, slash + 1);
    const std::unique_ptr<char, free_memory> real(realpath(folder.c_str(), nullptr));
    if (real == nullptr) {
        return "";
    }
    const std::string above = real.get() == std::string("/") ? "" : real.get();
    const std::string path = above + '/' + picture.substr(slash + 1);
    return item_paths::runtime_folder() + '/' + item_paths::name_of_real_path(path) + ".sock";
}

} // namespace item
