#include "export_block.hpp"

#include <cstring>

#include "block_kind.hpp"
#include "failure.hpp"
#include "rova_soft_platform.h"

namespace soft {
namespace {

constexpr uint32_t block_version = 2;

}  // namespace

export_block block_of(const umem_record& record, uint64_t address)
{
    return {platform::soft_block_magic, block_version, record.pid,
            record.start_time,          address,       record.token};
}

std::vector<uint8_t> to_bytes(const export_block& block)
{
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&block);
    return {bytes, bytes + sizeof(block)};
}

export_block from_bytes(const void* bytes, size_t size)
{
    export_block block = {};
    if (size != sizeof(block)) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "the block has %zu bytes, those of a software device have %zu", size,
                       sizeof(block));
    }
    std::memcpy(&block, bytes, sizeof(block));
    if (block.magic != platform::soft_block_magic) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "the block begins with 0x%08x: it was not made by a software device",
                       block.magic);
    }
    if (block.version != block_version) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "the block has version %u, this device reads version %u: both programs need "
                       "the same version of the library",
                       block.version, block_version);
    }
    return block;
}

}  // namespace soft

rova_error_t rova_soft_block_explain(const void* block, size_t size, rova_soft_block_info* info)
{
    return platform::guarded(ROVA_HERE, "Failed to explain a block", [=](platform::location here) {
        platform::check_not_null(block, "block", here);
        platform::check_not_null(info, "info", here);
        const soft::export_block parsed = soft::from_bytes(block, size);
        *info = {parsed.pid, parsed.start_time, parsed.record_address};
    });
}
