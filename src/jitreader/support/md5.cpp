#include "support/md5.h"

#include <cmath>
#include <cstring>

QUARVEL_NAMESPACE_BEGIN

namespace {

// The additive constants: the integer part of 2^32 * |sin(i + 1)|.
const uint32_t* additiveConstants() {
    static const struct Table {
        uint32_t k[64];
        Table() {
            for (int i = 0; i < 64; ++i)
                k[i] = static_cast<uint32_t>(std::floor(std::fabs(std::sin(i + 1.0)) * 4294967296.0));
        }
    } table;
    return table.k;
}

constexpr unsigned kShifts[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                                  5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                                  4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                                  6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

uint32_t rotateLeft(uint32_t x, unsigned n) {
    return (x << n) | (x >> (32 - n));
}

// One 64-byte block into the state.
void digestBlock(uint32_t state[4], const uint8_t* block, const uint32_t* k) {
    uint32_t m[16];
    for (int i = 0; i < 16; ++i)
        m[i] = static_cast<uint32_t>(block[4 * i]) | static_cast<uint32_t>(block[4 * i + 1]) << 8 |
               static_cast<uint32_t>(block[4 * i + 2]) << 16 | static_cast<uint32_t>(block[4 * i + 3]) << 24;
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (unsigned i = 0; i < 64; ++i) {
        uint32_t f;
        unsigned g;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (d & b) | (~d & c);
            g = (5 * i + 1) % 16;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        f += a + k[i] + m[g];
        a = d;
        d = c;
        c = b;
        b += rotateLeft(f, kShifts[i]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

} // namespace

std::array<uint8_t, 16> md5(const void* data, size_t size) {
    const uint32_t* k = additiveConstants();
    uint32_t state[4] = {0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u};
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    size_t whole = size - size % 64;
    for (size_t at = 0; at < whole; at += 64)
        digestBlock(state, bytes + at, k);

    // The rest, the 0x80 marker, zeros up to 8 bytes before a block's end, and the length in bits.
    uint8_t tail[128] = {};
    const size_t rest = size - whole;
    if (rest)
        std::memcpy(tail, bytes + whole, rest);
    tail[rest] = 0x80;
    const size_t tailSize = rest < 56 ? 64 : 128;
    const uint64_t bits = static_cast<uint64_t>(size) * 8;
    for (int i = 0; i < 8; ++i)
        tail[tailSize - 8 + i] = static_cast<uint8_t>(bits >> (8 * i));
    for (size_t at = 0; at < tailSize; at += 64)
        digestBlock(state, tail + at, k);

    std::array<uint8_t, 16> digest{};
    for (int w = 0; w < 4; ++w)
        for (int i = 0; i < 4; ++i)
            digest[static_cast<size_t>(4 * w + i)] = static_cast<uint8_t>(state[w] >> (8 * i));
    return digest;
}

QUARVEL_NAMESPACE_END
