#include "platform/standalone/base/open_descriptors.h"

#include <algorithm>
#include <cstdlib>
#include <dirent.h>
#include <memory>

namespace platform {

std::vector<int> open_descriptors()
{
    std::vector<int> numbers;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir("/proc/self/fd"), closedir);
    if (!listing) {
        return numbers;
    }
    while (const dirent* entry = readdir(listing.get())) {
        char* end = nullptr;
        const long number = strtol(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0' && number != dirfd(listing.get())) {
            numbers.push_back(static_cast<int>(number));
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

} // namespace platform
