// The software device's block. The input is combined with a valid one: zeros leave a byte
// unchanged, and extra bytes lengthen the block.

#include <algorithm>
#include <vector>

#include "device_abstraction/idevice_adapter.hpp"
#include "priv_rova_umem_api.h"
#include "rova_dev.hpp"
#include "rova_exception.hpp"
#include "target.hpp"

namespace {

/** Memory that one device exports and another one may import. */
struct exported_memory {
    exported_memory()
    {
        require(rova_soft_dev_open(&exporter) == ROVA_SUCCESS &&
                    rova_soft_dev_open(&importer) == ROVA_SUCCESS,
                "devices open");
        const auto adapter = exporter->device_adapter->get_tlox_adapter();
        block = adapter->export_umem(
            adapter->register_umem(memory, sizeof(memory), ROVA_PLATFORM_ACCESS_READ, 4096).first);
    }

    rova_dev* exporter = nullptr;
    rova_dev* importer = nullptr;
    char memory[64] = {};
    std::vector<uint8_t> block;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const exported_memory exported;

    std::vector<uint8_t> block = exported.block;
    block.resize(std::max(block.size(), size));
    std::transform(data, data + size, block.begin(), block.begin(),
                   [](uint8_t laid_over, uint8_t byte) { return laid_over ^ byte; });

    rova_soft_block_info info = {};
    const bool explained =
        rova_soft_block_explain(block.data(), block.size(), &info) == ROVA_SUCCESS;
    require(!explained ||
                rova_platform_block_kind_of(block.data(), block.size()) == ROVA_PLATFORM_BLOCK_SOFT,
            "what can be explained is of the kind");
    const auto adapter = exported.importer->device_adapter->get_tlox_adapter();
    try {
        const auto [handle, id] = adapter->import_umem(block.data(), block.size());
        require(explained && block == exported.block, "only a valid block is accepted");
        char bytes[sizeof(exported.memory)];
        require(
            rova_platform_dev_read(exported.importer, id, 0, bytes, sizeof(bytes)) == ROVA_SUCCESS,
            "what was imported can be read");
        require(adapter->deregister_umem(handle) == ROVA_SUCCESS, "and can be ended");
    } catch (const rova::exception& refused) {
        require(block != exported.block, "a valid block is accepted");
        require(refused.error_code() != ROVA_SUCCESS, "a refusal has a code");
    }
    return 0;
}
