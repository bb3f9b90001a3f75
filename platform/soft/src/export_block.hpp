/*
 * The block that travels to an importer, and the record in the exporter's memory that the block
 * leads to. Both are read by other processes, byte for byte.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace soft {

constexpr uint64_t umem_record_magic = 0x324452434552534f;

/** Random, so that a later registration at the same address is not taken for this one. */
using export_token = std::array<uint8_t, 16>;

/** Names the place of a registration's record. Nothing in it is trusted before it is checked. */
struct export_block {
    uint32_t magic;
    uint32_t version;
    uint64_t pid;
    uint64_t start_time; /**< of the process, so that a reused number does not match */
    uint64_t record_address;
    export_token token;
};

/** A range of memory that is registered. */
struct region {
    uint64_t address;
    uint64_t size;
    uint32_t access_flags;
    uint32_t imported; /**< 1: the memory is another registration's, 0: the exporter's own */
};

/**
 * A registration as importers see it, in a slot of a record pool. It is valid from the first export
 * to the end of the registration; before and after, all of it is zero.
 */
struct umem_record {
    uint64_t magic;
    export_token token;
    uint64_t pid;        /**< of the process that it belongs to, as in the block */
    uint64_t start_time; /**< of that process */
    region memory;
    export_block source; /**< what was imported; zeros when nothing was */
};

static_assert(sizeof(export_block) == 48 && sizeof(umem_record) == 112);
static_assert(std::has_unique_object_representations_v<export_block>);
static_assert(std::has_unique_object_representations_v<umem_record>);

/** The block that leads to a record of this process at the given address. */
export_block block_of(const umem_record& record, uint64_t address);

std::vector<uint8_t> to_bytes(const export_block& block);

/** Decodes a block from untrusted bytes; throws if they are not a block. */
export_block from_bytes(const void* bytes, size_t size);

}  // namespace soft
