// Bytes that end at a guard page: a read past the end crashes the test.
#pragma once

#include <cstddef>
#include <vector>

class GuardedBytes {
public:
    explicit GuardedBytes(const std::vector<unsigned char>& bytes);
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    ~GuardedBytes();

    const unsigned char* begin() const { return end_ - size_; }
    const unsigned char* end() const { return end_; }

private:
    unsigned char* memory_;
    size_t mapped_;
    unsigned char* end_;
    size_t size_;
};
