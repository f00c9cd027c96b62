#include "tests/support/guarded_bytes.h"

#include <algorithm>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

guarded_bytes::guarded_bytes(const std::vector<unsigned char>& bytes) : size_(bytes.size())
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t readable = (size_ + page) / page * page;
    mapped_ = readable + page;
    void* memory =
        mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        abort();
    }
    memory_ = static_cast<unsigned char*>(memory);
    end_ = memory_ + readable;
    std::copy(bytes.begin(), bytes.end(), end_ - size_);
    if (mprotect(end_, page, PROT_NONE) != 0) {
        abort();
    }
}

guarded_bytes::~guarded_bytes()
{
    munmap(memory_, mapped_);
}
