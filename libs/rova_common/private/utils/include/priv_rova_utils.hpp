/**
 * @file
 * @defgroup utils Checksum and scrambling (priv_rova_utils.hpp)
 * @ingroup export_framework
 *
 * Checksum and scrambling of the bytes that leave the process.
 *
 * @{
 */
#pragma once

#include <emmintrin.h>
#include <wmmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

/* ---- Checksum ------------------------------------------------------------------------------- */

/**
 * Takes `length` bytes into the state of a checksum, least-significant bit first. This loop says
 * what a checksum is; whatever is faster has to come to the same bits.
 */
constexpr uint32_t priv_rova_utils_crc32_update(uint32_t state, const uint8_t* buffer,
                                                size_t length, uint32_t polynomial)
{
    for (size_t i = 0; i < length; ++i) {
        uint32_t node = buffer[i];
        for (int bit = 0; bit < 8; ++bit) {
            const uint32_t lsb = (state ^ node) & 1;
            state >>= 1;
            if (lsb != 0) {
                state ^= polynomial;
            }
            node >>= 1;
        }
    }
    return state;
}

/** The state before the first byte. Inverted, the state after the last byte is the checksum. */
inline constexpr uint32_t priv_rova_utils_crc32_start = 0xFFFFFFFF;

/** The checksum of `length` bytes; 0 for none. */
inline uint32_t priv_rova_utils_crc32(const uint8_t* buffer, size_t length, uint32_t polynomial)
{
    return ~priv_rova_utils_crc32_update(priv_rova_utils_crc32_start, buffer, length, polynomial);
}

/**
 * The same with carry-less multiplication. The state is a remainder modulo P, which is x^32 plus
 * the constant's polynomial; the lowest bit is the highest power. A block of 16 bytes with n bits
 * behind it stands for its polynomial times x^n, so it may be replaced by anything short that has
 * the same remainder and be added to the bytes that follow. This holds for every P; the compiler
 * works out what to multiply by.
 */
namespace priv_rova_utils_folding {

/** What every checksum that leaves the process is made with. Not the common CRC-32's constant. */
inline constexpr uint32_t polynomial = 0x04C11DB7;

/** Below this the bits are counted one by one. At least 16. */
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

    // Barrett: what remains of the value after the multiple of P that its upper half asks for.
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
    // Zeros in front change nothing, so the bytes that fill no block go first, behind zeros. The
    // state counts as a part of the first four bytes, which may lie in two blocks.
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

/** Takes `length` bytes into the state, for a checksum that is made of several pieces. */
inline uint32_t priv_rova_utils_crc32_normal_update(uint32_t state, const void* buffer,
                                                    size_t length)
{
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    // Not tested: a processor without the instruction.
    if (length >= priv_rova_utils_folding::shortest && __builtin_cpu_supports("pclmul") != 0) {
        return priv_rova_utils_folding::update(state, bytes, length);
    }
    return priv_rova_utils_crc32_update(state, bytes, length, priv_rova_utils_folding::polynomial);
}

/** The checksum of everything that leaves the process. */
inline uint32_t priv_rova_utils_crc32_normal(const void* buffer, size_t length)
{
    return ~priv_rova_utils_crc32_normal_update(priv_rova_utils_crc32_start, buffer, length);
}

/* ---- Scrambling ----------------------------------------------------------------------------- */

/** Scrambles one block of 16 bytes. Returns the keys of the block that follows. */
inline __m128i priv_rova_utils_scramble_block(uint8_t* dest, const uint8_t* src, __m128i keys)
{
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dest), _mm_xor_si128(bytes, keys));
    return _mm_add_epi8(keys, _mm_set1_epi8(16));
}

/**
 * Exclusive or with a key that grows by one per byte and wraps at 256. A second time with the same
 * key restores the bytes. `dest` may be `src`; they do not overlap otherwise.
 */
inline void priv_rova_utils_scramble_descramble(void* dest, const void* src, size_t len,
                                                const char xor_key)
{
    auto* out = static_cast<uint8_t*>(dest);
    const auto* in = static_cast<const uint8_t*>(src);
    const __m128i steps = _mm_set_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    __m128i keys = _mm_add_epi8(_mm_set1_epi8(xor_key), steps);
    size_t i = 0;

    // A loop over single blocks is so short that its speed halves where it is badly aligned.
    for (; len - i >= 64; i += 64) {
        keys = priv_rova_utils_scramble_block(out + i, in + i, keys);
        keys = priv_rova_utils_scramble_block(out + i + 16, in + i + 16, keys);
        keys = priv_rova_utils_scramble_block(out + i + 32, in + i + 32, keys);
        keys = priv_rova_utils_scramble_block(out + i + 48, in + i + 48, keys);
    }
    for (; len - i >= 16; i += 16) {
        keys = priv_rova_utils_scramble_block(out + i, in + i, keys);
    }
    for (; i < len; ++i) {
        out[i] = static_cast<uint8_t>(in[i] ^ (static_cast<size_t>(xor_key) + i));
    }
}

/** @} */
