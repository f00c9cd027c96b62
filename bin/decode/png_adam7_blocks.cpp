// A group is a word. The sample times 0x0101.. fills it; a mask in memory order keeps the earlier
// half. Compilers vectorise the loops.
#include "bin/decode/png_adam7_blocks.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace {

template <typename word>
constexpr word each_byte_one()
{
    std::array<unsigned char, sizeof(word)> bytes = {};
    bytes.fill(1);
    return std::bit_cast<word>(bytes);
}

template <typename word>
constexpr word later_half()
{
    std::array<unsigned char, sizeof(word)> bytes = {};
    for (size_t i = sizeof(word) / 2; i < sizeof(word); ++i) {
        bytes[i] = 0xFF;
    }
    return std::bit_cast<word>(bytes);
}

template <typename word>
void paint_groups(unsigned char* __restrict row, const unsigned char* __restrict samples,
                  size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        const auto group = static_cast<word>(samples[i] * each_byte_one<word>());
        memcpy(row + i * sizeof(word), &group, sizeof(word));
    }
}

template <typename word>
void paint_later_halves(unsigned char* __restrict row, const unsigned char* __restrict samples,
                        size_t count)
{
    constexpr word painted = later_half<word>();
    for (size_t i = 0; i < count; ++i) {
        word group = 0;
        memcpy(&group, row + i * sizeof(word), sizeof(word));
        group =
            static_cast<word>((group & ~painted) | (samples[i] * each_byte_one<word>() & painted));
        memcpy(row + i * sizeof(word), &group, sizeof(word));
    }
}

} // namespace

void paint_8_of_8(unsigned char* row, const unsigned char* samples, size_t count)
{
    paint_groups<uint64_t>(row, samples, count);
}

void paint_4_of_8(unsigned char* row, const unsigned char* samples, size_t count)
{
    paint_later_halves<uint64_t>(row, samples, count);
}

void paint_4_of_4(unsigned char* row, const unsigned char* samples, size_t count)
{
    paint_groups<uint32_t>(row, samples, count);
}

void paint_2_of_4(unsigned char* row, const unsigned char* samples, size_t count)
{
    paint_later_halves<uint32_t>(row, samples, count);
}

void paint_2_of_2(unsigned char* row, const unsigned char* samples, size_t count)
{
    paint_groups<uint16_t>(row, samples, count);
}

void paint_1_of_2(unsigned char* row, const unsigned char* samples, size_t count)
{
    paint_later_halves<uint16_t>(row, samples, count);
}
