#include "platform/standalone/base/kept_names.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/unique_fd.h"
#include "platform/standalone/base/fd_io.h"

namespace platform {

namespace {

// Below every address that a program or the kernel chooses, so that one comparison tells the copies
// from everything else. Above the lowest address that may be mapped.
constexpr uintptr_t lowest_address = 0x100000;
constexpr uintptr_t highest_end = 0x200000;
constexpr int write_seal_for_all = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

std::vector<kept_places> places;
uintptr_t end_address = 0;

// All names one after the other, each at the beginning of a slot. Fills the places.
std::string text_of(const std::vector<kept_folder>& folders, std::vector<kept_places>* found)
{
    std::string text;
    for (const kept_folder& folder : folders) {
        size_t longest = 0;
        for (const std::string& name : folder.names) {
            longest = std::max(longest, name.size() + 1);
        }
        const size_t slot = std::bit_ceil(longest);
        text.resize((text.size() + slot - 1) / slot * slot);
        const uintptr_t first = lowest_address + text.size();
        for (const std::string& name : folder.names) {
            text += name;
            text.resize((text.size() + slot) / slot * slot);
        }
        if (!folder.names.empty() && !folder.descriptors.empty()) {
            found->push_back(
                {folder.descriptors, first, lowest_address + text.size() - slot, slot});
        }
    }
    return text;
}

// Not even a debugger's way of writing changes a shared mapping of sealed memory.
bool map_sealed(const std::string& text, size_t size)
{
    const unique_fd memory(memfd_create("names", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!memory || ftruncate(memory.get(), static_cast<off_t>(size)) != 0 ||
        write_fully(memory.get(), text.data(), text.size()) != 0 ||
        fcntl(memory.get(), F_ADD_SEALS, write_seal_for_all) != 0) {
        return false;
    }
    auto* wanted = reinterpret_cast<void*>(lowest_address);
    void* mapped = mmap(wanted, size, PROT_READ, MAP_SHARED | MAP_FIXED_NOREPLACE, memory.get(), 0);
    if (mapped != MAP_FAILED && mapped != wanted) { // a kernel that does not know the flag
        munmap(mapped, size);
        return false;
    }
    return mapped != MAP_FAILED;
}

bool is_there(uintptr_t place, const char* name)
{
    return strcmp(reinterpret_cast<const char*>(place), name) == 0;
}

} // namespace

std::vector<kept_places> keep_names(const std::vector<kept_folder>& folders)
{
    if (end_address != 0) {
        munmap(reinterpret_cast<void*>(lowest_address), end_address - lowest_address);
    }
    places.clear();
    end_address = 0;
    std::vector<kept_places> found;
    const std::string text = text_of(folders, &found);
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t size = (text.size() + page - 1) / page * page;
    if (found.empty() || size > highest_end - lowest_address || !map_sealed(text, size)) {
        return {};
    }
    end_address = lowest_address + size;
    places = found;
    return found;
}

uintptr_t end_of_kept_names()
{
    return end_address;
}

const char* kept_name(int folder, const char* name)
{
    for (const kept_places& kept : places) {
        if (std::find(kept.descriptors.begin(), kept.descriptors.end(), folder) ==
            kept.descriptors.end()) {
            continue;
        }
        for (uintptr_t place = kept.first; place <= kept.last; place += kept.slot) {
            if (is_there(place, name)) {
                return reinterpret_cast<const char*>(place);
            }
        }
    }
    return name;
}

} // namespace platform
