/*
 * The first four bytes of a block, which tell what kind of device made it.
 */
#pragma once

#include <cstdint>

namespace platform {

constexpr uint32_t soft_block_magic = 0x42585352;    // "RSXB"
constexpr uint32_t fabric_block_magic = 0x42584652;  // "RFXB"

}  // namespace platform
