// Files of others in the folders that the worker uses, through all that it has open.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/attack/attack.h"

namespace attack {

namespace {

constexpr int all_descriptors = 64;

struct split_path {
    std::string folder;
    std::string name;
};

split_path split(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

bool is_gone(const std::string& path)
{
    return access(path.c_str(), F_OK) != 0;
}

// Tries every descriptor as the folder; 0 as soon as the file is gone.
template <typename Remove>
int with_every_folder(const std::string& path, Remove remove)
{
    const std::string name = split(path).name;
    for (int folder = 0; folder < all_descriptors; ++folder) {
        remove(folder, name.c_str());
        if (is_gone(path)) {
            return 0;
        }
    }
    remove(AT_FDCWD, path.c_str());
    return is_gone(path) ? 0 : EPERM;
}

int remove_at(const std::string& path)
{
    return with_every_folder(path, [](int folder, const char* name) { unlinkat(folder, name, 0); });
}

int rename_at(const std::string& path)
{
    return with_every_folder(path, [](int folder, const char* name) {
        syscall(SYS_renameat2, folder, name, folder, "elsewhere", 0);
    });
}

// Overwrites it with a file that the worker may rename.
int replace_at(const std::string& path)
{
    const std::string name = split(path).name;
    struct stat before = {};
    struct stat after = {};
    stat(path.c_str(), &before);
    for (int folder = 0; folder < all_descriptors; ++folder) {
        for (const char* from : {"metadata", "log", "metadata.lock"}) {
            syscall(SYS_renameat2, folder, from, folder, name.c_str(), 0);
        }
    }
    return stat(path.c_str(), &after) != 0 || after.st_ino != before.st_ino ? 0 : EPERM;
}

// --- names that the worker keeps in memory ------------------------------------------------------

constexpr uintptr_t kept = 0x100000;
constexpr size_t kept_size = 0x100000;

// Calls `use` with every address there that begins a text.
template <typename Use>
void with_every_kept_name(Use use)
{
    for (uintptr_t page = kept; page < kept + kept_size; page += 4096) {
        // The kernel does not read an address that is not mapped, and says so.
        if (access(reinterpret_cast<const char*>(page), F_OK) != 0 && errno == EFAULT) {
            return;
        }
        for (uintptr_t place = page; place < page + 4096; ++place) {
            const auto* text = reinterpret_cast<const char*>(place);
            if (*text != '\0') {
                use(text);
            }
        }
    }
}

// Puts the folder of the file in the place of every descriptor, then uses the worker's own names.
// The file has the name of one of them.
int swap_folders(const std::string& path)
{
    const int folder = open(split(path).folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (int fd = 3; fd < all_descriptors; ++fd) {
        if (fd != folder) {
            close(fd);
            dup2(folder, fd);
            syscall(SYS_dup3, folder, fd, O_CLOEXEC);
        }
    }
    with_every_kept_name([](const char* name) {
        for (int fd = 0; fd < all_descriptors; ++fd) {
            unlinkat(fd, name, 0);
        }
    });
    return is_gone(path) ? 0 : EPERM;
}

int remove_by_end_of_name(const std::string& path)
{
    with_every_kept_name([](const char* name) {
        for (int fd = 0; fd < all_descriptors; ++fd) {
            unlinkat(fd, name, 0);
        }
    });
    return is_gone(path) ? 0 : EPERM;
}

// Writes the file's name in the place of every kept one.
int overwrite_names(const std::string& path)
{
    const std::string name = split(path).name;
    auto* place = reinterpret_cast<char*>(kept);
    mprotect(place, kept_size, PROT_READ | PROT_WRITE);
    mprotect(place, 4096, PROT_READ | PROT_WRITE);
    const int memory = open("/proc/self/mem", O_RDWR | O_CLOEXEC);
    if (memory >= 0 &&
        pwrite(memory, name.c_str(), name.size() + 1, static_cast<off_t>(kept)) > 0) {
        return 0;
    }
    for (const int kind : {MAP_FIXED, 0}) {
        munmap(place, kept_size);
        munmap(place - kept_size, 2 * kept_size);
        void* fresh =
            mmap(place, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | kind, -1, 0);
        if (fresh == place) {
            return 0;
        }
        if (fresh != MAP_FAILED &&
            mremap(fresh, 4096, 4096, MREMAP_MAYMOVE | MREMAP_FIXED, place) == place) {
            return 0;
        }
    }
    if (mremap(place, 4096, 4096, MREMAP_MAYMOVE | MREMAP_FIXED, place + (kept_size << 4)) !=
        MAP_FAILED) {
        return 0;
    }
    return madvise(place, 4096, MADV_DONTFORK) == 0 ? 0 : EPERM;
}

constexpr attempt attempts[] = {
    {"remove_at", remove_at},
    {"rename_at", rename_at},
    {"replace_at", replace_at},
    {"swap_folders", swap_folders},
    {"remove_by_end_of_name", remove_by_end_of_name},
    {"overwrite_names", overwrite_names},
};

} // namespace

std::span<const attempt> own_file_attempts()
{
    return attempts;
}

} // namespace attack
