/*
 * The checksum of priv_rova_utils.hpp, 16 bytes at a time, by carry-less multiplication.
 *
 * The state is a remainder modulo P, which is x^32 plus the constant's polynomial; the lowest bit
 * is the highest power. A block of 16 bytes with n bits after it stands for its polynomial times
 * x^n. So it may be replaced by any shorter polynomial with the same remainder, added to the bytes
 * that follow. This holds for every P; the compiler computes the multipliers.
 */
#pragma once

#include <emmintrin.h>
#include <wmmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace priv_rova_utils_folding {

/** The polynomial of every checksum that leaves the process. It is not the common CRC-32's. */
inline constexpr uint32_t polynomial = 0x04C11DB7;

/** Shorter input goes through the bitwise loop. At least 16. */
inline constexpr size_t shortest = 32;

/**
 * A multiplier that replaces x^n by its remainder. It is for x^(n-1): the product of two values
 * whose bits run backwards comes out one bit low, which is a multiplication by x.
 */
constexpr int64_t multiplier(int n)
{
    uint32_t power = 0x80000000;
    for (int i = 1; i < n; ++i) {
        power = (power >> 1) ^ ((power & 1) != 0 ? polynomial : 0);
    }
    return static_cast<int64_t>(uint64_t{power} << 32);
}

/** The quotient x^64 / P, by long division. */
constexpr int64_t quotient()
{
    uint64_t result = 1;
    uint32_t remainder = polynomial;
    for (int bit = 1; bit <= 32; ++bit) {
        const uint32_t lsb = remainder & 1;
        result |= uint64_t{lsb} << bit;
        remainder = (remainder >> 1) ^ (lsb != 0 ? polynomial : 0);
    }
    return static_cast<int64_t>(result);
}

inline __m128i load(const uint8_t* bytes)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

/** Replaces a block by one that has the same remainder 16 bytes further on, and adds that. */
__attribute__((target("pclmul"))) inline __m128i fold(__m128i block, __m128i next)
{
    constexpr int64_t by_192 = multiplier(192);
    constexpr int64_t by_128 = multiplier(128);
    const __m128i by = _mm_set_epi64x(by_128, by_192);
    return _mm_xor_si128(
        _mm_xor_si128(_mm_clmulepi64_si128(block, by, 0x00), _mm_clmulepi64_si128(block, by, 0x11)),
        next);
}

/** The state that a block leaves: its remainder after a multiplication by x^32. */
__attribute__((target("pclmul"))) inline uint32_t reduce(__m128i block)
{
    // From 160 bits to 96, then to 64.
    constexpr int64_t by_96 = multiplier(96);
    constexpr int64_t by_64 = multiplier(64);
    const __m128i by = _mm_set_epi64x(by_64, by_96);
    const __m128i low = _mm_slli_si128(_mm_srli_si128(block, 8), 4);
    const __m128i middle = _mm_xor_si128(_mm_clmulepi64_si128(block, by, 0x00), low);
    const __m128i rest = _mm_xor_si128(_mm_clmulepi64_si128(middle, by, 0x10), middle);
    const __m128i value = _mm_srli_si128(rest, 8);

    // Barrett reduction: subtracts the multiple of P that the upper half determines.
    constexpr auto modulus = static_cast<int64_t>((uint64_t{polynomial} << 1) | 1);
    constexpr int64_t inverse = quotient();
    const __m128i divide = _mm_set_epi64x(modulus, inverse);
    const __m128i half = _mm_set_epi32(0, 0, 0, -1);
    const __m128i times =
        _mm_and_si128(_mm_clmulepi64_si128(_mm_and_si128(value, half), divide, 0x00), half);
    const __m128i remainder = _mm_xor_si128(_mm_clmulepi64_si128(times, divide, 0x10), value);
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(remainder, 4)));
}

/** As priv_rova_utils_crc32_update, for at least 16 bytes. */
__attribute__((target("pclmul"))) inline uint32_t update(uint32_t state, const uint8_t* buffer,
                                                         size_t length)
{
    // Leading zeros change nothing, so the bytes that do not fill a block come first, after zeros.
    // The state is added to the first four bytes, which may lie in two blocks.
    uint8_t front[32] = {};
    const size_t odd = length % 16;
    uint8_t* const first = front + 16 - odd;
    std::memcpy(first, buffer, 16 + odd);
    uint32_t word = 0;
    std::memcpy(&word, first, sizeof(word));
    word ^= state;
    std::memcpy(first, &word, sizeof(word));
    __m128i block = fold(load(front), load(front + 16));
    const uint8_t* next = buffer + 16 + odd;
    size_t left = length - 16 - odd;
    for (; left != 0; next += 16, left -= 16) {
        block = fold(block, load(next));
    }
    return reduce(block);
}

}  // namespace priv_rova_utils_folding
