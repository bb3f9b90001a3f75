// Any text as the payload of a valid envelope, on a device that accepts every block but an empty
// one. What can be imported is exported again and must come out the same.

#include <vector>

#include "priv_rova_export.hpp"
#include "priv_rova_umem.hpp"
#include "priv_rova_umem_api.h"
#include "rova_dev.hpp"
#include "target.hpp"

struct tlox_umem {
    std::vector<uint8_t> block;
};

namespace {

/** Keeps the block that a registration was imported from, and exports the same. */
struct keeping_device : rova_dev,
                        device_abstraction::idevice_adapter,
                        device_abstraction::itlox_adapter {
    // The device is its own adapter, and lives as long as the process.
    keeping_device() { device_adapter = {std::shared_ptr<void>(), this}; }
    std::shared_ptr<itlox_adapter> get_tlox_adapter() noexcept override
    {
        return {device_adapter, this};
    }
    std::pair<tlox_umem*, uint32_t> register_umem(void*, size_t, uint32_t, size_t) override
    {
        return {nullptr, 0};
    }
    std::pair<tlox_umem*, uint32_t> register_umem_dmabuf(int, void*, size_t, size_t, uint32_t,
                                                         size_t) override
    {
        return {nullptr, 0};
    }
    rova_error_t deregister_umem(tlox_umem* umem) noexcept override
    {
        const std::unique_ptr<tlox_umem> ended(umem);
        return ROVA_SUCCESS;
    }
    std::vector<uint8_t> export_umem(tlox_umem* umem) override { return umem->block; }
    std::pair<tlox_umem*, uint32_t> import_umem(const uint8_t* block, size_t length) override
    {
        if (length == 0) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "it could not be exported", ROVA_HERE);
        }
        return {std::make_unique<tlox_umem>(tlox_umem{{block, block + length}}).release(), 1};
    }
    void release_umem(tlox_umem* umem) override { deregister_umem(umem); }
};

struct region_deleter {
    void operator()(priv_rova_umem* umem) const
    {
        require(priv_rova_umem_destroy(umem) == ROVA_SUCCESS, "a region can be ended");
    }
};
using region = std::unique_ptr<priv_rova_umem, region_deleter>;

region import(const uint8_t* bytes, size_t size)
{
    static const keeping_device dev;
    static char here = 0;
    priv_rova_umem* umem = nullptr;
    const rova_error_t code = priv_rova_umem_create_from_export(&dev, bytes, size, &here, &umem);
    require((code == ROVA_SUCCESS) == (umem != nullptr), "a region comes with success only");
    return region(umem);
}

std::vector<uint8_t> exported(const region& umem)
{
    void* descriptor = nullptr;
    size_t length = 0;
    require(priv_rova_umem_export(umem.get(), &descriptor, &length) == ROVA_SUCCESS,
            "what was imported can be exported");
    const auto* const bytes = static_cast<const uint8_t*>(descriptor);
    return {bytes, bytes + length};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto envelope =
        core::export_header_factory::get_latest()->serialize(data, static_cast<uint32_t>(size));
    const region first = import(envelope.first.data(), envelope.first.size());
    if (first == nullptr) {
        return 0;
    }
    const std::vector<uint8_t> descriptor = exported(first);
    const region second = import(descriptor.data(), descriptor.size());
    require(second != nullptr, "what was exported can be imported");
    require(second->get_size() == first->get_size(), "the size comes back");
    require(second->get_page_size() == first->get_page_size(), "the page size comes back");
    require(second->get_access_flags() == first->get_access_flags(), "the flags come back");
    require(exported(second) == descriptor, "the descriptor comes out the same");
    return 0;
}
