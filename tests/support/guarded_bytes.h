// Bytes that end at a guard page: a read past the end crashes the test.
#pragma once

#include <cstddef>
#include <vector>

class guarded_bytes {
public:
    explicit guarded_bytes(const std::vector<unsigned char>& bytes);
    guarded_bytes(const guarded_bytes&) = delete;
    guarded_bytes& operator=(const guarded_bytes&) = delete;
    ~guarded_bytes();

    const unsigned char* begin() const { return end_ - size_; }
    const unsigned char* end() const { return end_; }

private:
    unsigned char* memory_;
    size_t mapped_;
    unsigned char* end_;
    size_t size_;
};
