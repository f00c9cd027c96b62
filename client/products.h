// Products of sizes. A product that size_t cannot hold is never used.
#pragma once

#include <cstddef>
#include <stdexcept>

// Sets *product. False if it does not fit; *product is then unspecified.
inline bool multiply(size_t a, size_t b, size_t* product)
{
    return !__builtin_mul_overflow(a, b, product);
}

// For sizes of memory that is about to be allocated: a product that does not fit is a lack of
// memory.
inline size_t product_of(size_t a, size_t b)
{
    size_t product = 0;
    if (!multiply(a, b, &product)) {
        throw std::length_error("not enough memory");
    }
    return product;
}
