// The fabric device's block. The input is combined with a valid one, with and without a corrected
// checksum; an accepted block is written back unchanged.

#include <algorithm>
#include <cstring>
#include <vector>

#include "../platform/fabric/src/export_block.hpp"
#include "rova_exception.hpp"
#include "rova_fabric_platform.h"
#include "target.hpp"

namespace {

using block_bytes = std::vector<uint8_t>;

block_bytes good_block()
{
    const fabric::region_record record = {
        fabric::region_record_magic, {1, 2, 3}, 4096, 3, {0x1234, 0x10000}};
    return fabric::to_bytes({"net", {AF_INET, {10, 0, 0, 1}}, 4242, {0x5678, 0x20000}, record});
}

/** The checksum of all bytes but its own eight, as a block holds it. */
void mend_checksum(block_bytes& block)
{
    constexpr size_t at = 8;
    std::fill_n(block.begin() + at, 8, uint8_t{0});
    uint64_t sum = 0xcbf29ce484222325;
    for (const uint8_t byte : block) {
        sum = (sum ^ byte) * 0x100000001b3;
    }
    std::memcpy(block.data() + at, &sum, sizeof(sum));
}

void take(const block_bytes& block)
{
    rova_fabric_block_info info = {};
    const rova_error_t explained = rova_fabric_block_explain(block.data(), block.size(), &info);
    try {
        const fabric::export_block parsed = fabric::from_bytes(block.data(), block.size());
        require(fabric::to_bytes(parsed) == block, "an accepted block is written back unchanged");
        require(fabric::reason_against(parsed.address) == nullptr,
                "its address can be connected to");
        require(explained == ROVA_SUCCESS && parsed.address.text() == info.address &&
                    parsed.port == info.port && parsed.provider == info.provider &&
                    parsed.record.size == info.size &&
                    parsed.record.access_flags == info.access_flags,
                "it is explained as it is read");
    } catch (const rova::exception& refused) {
        require(explained == refused.error_code(), "a refusal has one code");
        require(info.size == 0 && info.port == 0, "a refused block explains nothing");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    block_bytes block = good_block();
    block.resize(std::max(block.size(), size));
    std::transform(data, data + size, block.begin(), block.begin(),
                   [](uint8_t laid_over, uint8_t byte) { return laid_over ^ byte; });
    take(block);
    mend_checksum(block);
    take(block);
    block.resize(std::min(block.size(), size));
    take(block);
    return 0;
}
