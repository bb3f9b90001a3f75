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

#include <cstddef>
#include <cstdint>

#include "priv_rova_utils_folding.hpp"

/* ---- Checksum ------------------------------------------------------------------------------- */

/**
 * Updates a checksum's state with `length` bytes, least-significant bit first. This bitwise loop
 * defines the checksum; every faster form gives the same bits.
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

/** Updates the state with `length` bytes, for a checksum over several pieces. */
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

/** The checksum of all bytes that leave the process. */
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
