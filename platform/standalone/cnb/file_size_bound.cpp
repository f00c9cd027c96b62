#include "platform/standalone/cnb/file_size_bound.h"

#include <algorithm>
#include <sys/resource.h>

namespace platform {

namespace {

uint64_t bound_of_files = 0; // 0: not started

bool lower_limit(uint64_t bytes)
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, bytes);
    limit.rlim_max = std::min<rlim_t>(limit.rlim_max, bytes);
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

} // namespace

bool start_file_size_bound(uint64_t buffer, uint64_t files)
{
    if (!lower_limit(std::max(buffer, files))) {
        return false;
    }
    bound_of_files = files;
    return true;
}

void tighten_file_size_bound()
{
    if (bound_of_files != 0) {
        lower_limit(bound_of_files);
    }
}

void reset_file_size_bound()
{
    bound_of_files = 0;
}

} // namespace platform
