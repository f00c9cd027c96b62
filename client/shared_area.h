// The worker's buffer, mapped into this process once for each connection and shared by its frames.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class shared_area {
public:
    // Maps the whole of `fd` for reading. Returns null and the reason unless it is a memory file
    // of `min_size` bytes to 4 GiB less one, whose size and memory are sealed as in a worker's
    // buffer, and whose memory is reserved throughout. Then every byte can be read as long as this
    // object lives.
    static std::shared_ptr<shared_area> map(int fd, uint64_t min_size, std::string* reason);

    shared_area(const shared_area&) = delete;
    shared_area& operator=(const shared_area&) = delete;
    ~shared_area();

    const unsigned char* bytes() const { return base; }
    uint64_t size() const { return length; }

private:
    shared_area(unsigned char* mapped, uint64_t size) : base(mapped), length(size) {}

    unsigned char* base;
    uint64_t length;
};
