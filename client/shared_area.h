// The worker's buffer in this process: mapped once for a connection, shared by its frames.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class shared_area {
public:
    // Maps the whole of `fd` for reading. Null with the reason when the descriptor is not what a
    // worker gives out: a regular file that is long enough and can never shrink under the reader.
    static std::shared_ptr<shared_area> map(int fd, uint64_t least_size, std::string* reason);

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
