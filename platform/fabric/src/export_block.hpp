/*
 * The block that travels in a descriptor and lets a device on another host find a region, and the
 * record beside the region, which importers read. Both are little-endian.
 */
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "address.hpp"

namespace fabric {

/** Random, so that another region is not taken for this one. */
using nonce = std::array<uint8_t, 16>;

/** The start of remote memory, as RMA operations address it. */
struct remote_memory {
    uint64_t key;
    uint64_t address;
};

/**
 * The record of an exported region. Importers read it whenever they connect: at the import, and
 * after a transfer that failed. It exists from the first export to the end of the registration.
 */
struct region_record {
    uint64_t magic;
    nonce token;
    uint64_t size;
    uint64_t access_flags;
    remote_memory data;
};

/** The contents of a block. */
struct export_block {
    std::string provider;
    ip_address address;
    uint16_t port;
    remote_memory record_at;
    region_record record;
};

constexpr uint64_t region_record_magic = 0x64726f6365724652;

static_assert(sizeof(region_record) == 56);
static_assert(std::has_unique_object_representations_v<region_record>);

/** A block's bytes. */
std::vector<uint8_t> to_bytes(const export_block& block);

/** Decodes a block from untrusted bytes; throws if they are not a block. */
export_block from_bytes(const uint8_t* bytes, size_t size);

}  // namespace fabric
