#include "block_kind.hpp"

#include <cstring>

#include "rova_platform.h"

rova_platform_block_kind rova_platform_block_kind_of(const void* block, size_t size)
{
    uint32_t magic = 0;
    if (block == nullptr || size < sizeof(magic)) {
        return ROVA_PLATFORM_BLOCK_UNKNOWN;
    }
    std::memcpy(&magic, block, sizeof(magic));
    switch (magic) {
        case platform::soft_block_magic:
            return ROVA_PLATFORM_BLOCK_SOFT;
        case platform::fabric_block_magic:
            return ROVA_PLATFORM_BLOCK_FABRIC;
        default:
            return ROVA_PLATFORM_BLOCK_UNKNOWN;
    }
}
