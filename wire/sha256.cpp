#include "wire/sha256.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace wire {

namespace {

using hash_state = std::array<uint32_t, 8>;

constexpr size_t block_size = 64;

// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::array<uint32_t, 64> round_constants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::array<uint32_t, 64> message_schedule(const unsigned char* block)
{
    std::array<uint32_t, 64> words = {};
    for (size_t i = 0; i < 16; ++i) {
        words[i] = static_cast<uint32_t>(block[4 * i]) << 24 |
                   static_cast<uint32_t>(block[4 * i + 1]) << 16 |
                   static_cast<uint32_t>(block[4 * i + 2]) << 8 | block[4 * i + 3];
    }
    for (size_t i = 16; i < words.size(); ++i) {
        const uint32_t early = words[i - 15];
        const uint32_t late = words[i - 2];
        words[i] = words[i - 16] + (std::rotr(early, 7) ^ std::rotr(early, 18) ^ (early >> 3)) +
                   words[i - 7] + (std::rotr(late, 17) ^ std::rotr(late, 19) ^ (late >> 10));
    }
    return words;
}

void hash_block(hash_state* state, const unsigned char* block)
{
    const std::array<uint32_t, 64> words = message_schedule(block);
    auto [a, b, c, d, e, f, g, h] = *state;
    for (size_t i = 0; i < words.size(); ++i) {
        const uint32_t chosen = (e & f) ^ (~e & g);
        const uint32_t mixed = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) +
                               chosen + round_constants[i] + words[i];
        const uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
        h = g;
        g = f;
        f = e;
        e = d + mixed;
        d = c;
        c = b;
        b = a;
        a = mixed + (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + majority;
    }
    const hash_state worked = {a, b, c, d, e, f, g, h};
    for (size_t i = 0; i < worked.size(); ++i) {
        (*state)[i] += worked[i];
    }
}

} // namespace

std::array<unsigned char, 32> sha256(std::string_view text)
{
    std::vector<unsigned char> padded(text.begin(), text.end());
    const uint64_t bits = static_cast<uint64_t>(text.size()) * 8;
    padded.push_back(0x80);
    while (padded.size() % block_size != block_size - 8) {
        padded.push_back(0);
    }
    for (int shift = 56; shift >= 0; shift -= 8) {
        padded.push_back(static_cast<unsigned char>(bits >> shift));
    }
    hash_state state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    for (size_t at = 0; at < padded.size(); at += block_size) {
        hash_block(&state, padded.data() + at);
    }
    std::array<unsigned char, 32> digest = {};
    for (size_t i = 0; i < digest.size(); ++i) {
        digest[i] = static_cast<unsigned char>(state[i / 4] >> (24 - 8 * (i % 4)));
    }
    return digest;
}

std::string short_hash(std::string_view text)
{
    constexpr size_t bytes = 10;
    const std::array<unsigned char, 32> digest = sha256(text);
    std::string digits;
    for (size_t i = 0; i < bytes; ++i) {
        digits += "0123456789abcdef"[digest[i] >> 4U];
        digits += "0123456789abcdef"[digest[i] & 15U];
    }
    return digits;
}

} // namespace wire
