/*
 * What lets one process find a registration of another: the block that travels, and the record
 * that stays in the exporter's memory. Both are read by other processes, byte for byte.
 */
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

namespace soft {

constexpr uint32_t export_block_magic = 0x42585352;  // "RSXB"
constexpr uint32_t export_block_version = 1;
constexpr uint64_t umem_record_magic = 0x4452434552534f52;

/** Random, so that no later registration at the same place is taken for this one. */
using export_token = std::array<uint8_t, 16>;

/** Says where the record of a registration lies. Nothing in it is believed unchecked. */
struct export_block {
    uint32_t magic;
    uint32_t version;
    uint64_t pid;
    uint64_t start_time; /**< of the process, so that a reused number is no match */
    uint64_t record_address;
    export_token token;
};

/**
 * A registration as importers see it. It holds from the first export to the end of the
 * registration; before and after, magic and token are zero.
 */
struct umem_record {
    uint64_t magic;
    export_token token;
    uint64_t address;
    uint64_t size;
    uint32_t access_flags;
    uint32_t imported;   /**< 1: the memory is that of `source`, 0: the exporter's own */
    export_block source; /**< zeros when not imported */
};

static_assert(sizeof(export_block) == 48 && sizeof(umem_record) == 96);
static_assert(std::has_unique_object_representations_v<export_block>);
static_assert(std::has_unique_object_representations_v<umem_record>);

}  // namespace soft
