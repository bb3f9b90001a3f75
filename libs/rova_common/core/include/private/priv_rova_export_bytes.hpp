/**
 * @file
 * @defgroup export_bytes Bytes of a descriptor (priv_rova_export_bytes.hpp)
 * @ingroup export_framework
 *
 * What the bytes of an export descriptor mean: its header, its checksum, the key of its scrambling
 * and the names in its payload.
 *
 * Besides a JSON parser, this is all that a program needs to inspect a descriptor without importing
 * it. priv_rova_export.hpp, which includes this, writes and reads whole descriptors.
 *
 * @{
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "priv_rova_utils.hpp"

namespace core {

/** The first 12 bytes of a descriptor, each field little-endian, in this order. */
struct common_header {
    uint32_t crc;                 /**< over the whole descriptor, with this field 0 */
    uint16_t major_minor_version; /**< major in the top 6 bits, minor in the low 10 */
    uint16_t header_length;       /**< where the payload begins */
    uint32_t payload_length;      /**< how long it is */

    static constexpr size_t size_bytes = 12;
    static constexpr unsigned major_num_bits = 6;
    static constexpr unsigned minor_num_bits = 10;

    /** Reads the header of a descriptor; `bytes` has at least size_bytes. */
    static common_header read(const uint8_t* bytes)
    {
        return {read_32(bytes), read_16(bytes + 4), read_16(bytes + 6), read_32(bytes + 8)};
    }

    void write(uint8_t* bytes) const
    {
        write_32(bytes, crc);
        write_16(bytes + 4, major_minor_version);
        write_16(bytes + 6, header_length);
        write_32(bytes + 8, payload_length);
    }

    /** 0 to 63. */
    uint8_t major_version() const
    {
        return static_cast<uint8_t>(major_minor_version >> minor_num_bits);
    }

    /** 0 to 1023. */
    uint16_t minor_version() const
    {
        return static_cast<uint16_t>(major_minor_version & ((1U << minor_num_bits) - 1));
    }

    /** The length that the whole descriptor must have. */
    uint64_t descriptor_length() const { return uint64_t{header_length} + payload_length; }

private:
    static uint16_t read_16(const uint8_t* bytes)
    {
        return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
    }

    static uint32_t read_32(const uint8_t* bytes)
    {
        return read_16(bytes) | static_cast<uint32_t>(read_16(bytes + 2)) << 16;
    }

    static void write_16(uint8_t* bytes, uint16_t value)
    {
        bytes[0] = static_cast<uint8_t>(value);
        bytes[1] = static_cast<uint8_t>(value >> 8);
    }

    static void write_32(uint8_t* bytes, uint32_t value)
    {
        write_16(bytes, static_cast<uint16_t>(value));
        write_16(bytes + 2, static_cast<uint16_t>(value >> 16));
    }
};

static_assert(sizeof(common_header) == common_header::size_bytes, "no padding between the fields");
static_assert(common_header::major_num_bits + common_header::minor_num_bits == 16);

/**
 * The checksum that a descriptor's first field should hold: over all bytes, with that field taken
 * as 0. `blob_length` is at least common_header::size_bytes.
 */
inline uint32_t descriptor_checksum(const uint8_t* blob, size_t blob_length)
{
    const uint8_t no_crc[sizeof(common_header::crc)] = {};
    uint32_t state = priv_rova_utils_crc32_start;
    state = priv_rova_utils_crc32_normal_update(state, no_crc, sizeof(no_crc));
    state = priv_rova_utils_crc32_normal_update(state, blob + sizeof(no_crc),
                                                blob_length - sizeof(no_crc));
    return ~state;
}

/** The key of the payload's first byte, for priv_rova_utils_scramble_descramble. */
inline constexpr char scrambling_key = 0x4E;

/** The version of the payload that is written, and the highest major version that is read. */
inline constexpr uint8_t sc_umem_export_major_version = 1;
inline constexpr uint8_t sc_umem_export_minor_version = 1;
inline constexpr uint8_t sc_umem_export_major_1 = 1;

/** The names of the payload's members. */
namespace payload_key {

inline constexpr char access_flags[] = "access_flags";
inline constexpr char page_size[] = "page_size";
inline constexpr char size[] = "size";
inline constexpr char device_block[] = "tlox_umem_exported_attributes";
inline constexpr char version[] = "version";
inline constexpr char version_major[] = "major"; /**< a member of `version` */
inline constexpr char version_minor[] = "minor"; /**< a member of `version` */

}  // namespace payload_key

}  // namespace core

/** @} */
