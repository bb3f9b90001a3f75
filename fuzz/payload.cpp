/*
 * Any text as the payload of a good envelope, on a device that takes every block. What can be
 * imported is exported again and has to come back the same.
 */
#include <algorithm>
#include <string>
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
class keeping_adapter : public device_abstraction::itlox_adapter {
public:
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
        auto umem = std::make_unique<tlox_umem>();
        umem->block.assign(block, block + length);
        return {umem.release(), 1};
    }
    void release_umem(tlox_umem* umem) override { deregister_umem(umem); }
};

class keeping_device : public device_abstraction::idevice_adapter {
public:
    std::shared_ptr<device_abstraction::itlox_adapter> get_tlox_adapter() noexcept override
    {
        return m_adapter;
    }

private:
    std::shared_ptr<keeping_adapter> m_adapter = std::make_shared<keeping_adapter>();
};

struct region_end {
    void operator()(priv_rova_umem* umem) const
    {
        require(priv_rova_umem_destroy(umem) == ROVA_SUCCESS, "a region can be ended");
    }
};
using region = std::unique_ptr<priv_rova_umem, region_end>;

region import(const uint8_t* bytes, size_t size)
{
    static const rova_dev dev{std::make_shared<keeping_device>()};
    static char here = 0;
    priv_rova_umem* umem = nullptr;
    const rova_error_t code = priv_rova_umem_create_from_export(&dev, bytes, size, &here, &umem);
    require((code == ROVA_SUCCESS) == (umem != nullptr), "a region comes with success only");
    return region(umem);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = be_quiet();
    require(quiet, "the log is quiet");

    const auto envelope =
        core::export_header_factory::get_latest()->serialize(data, static_cast<uint32_t>(size));
    const region first = import(envelope.first.data(), envelope.first.size());
    void* descriptor = nullptr;
    size_t length = 0;
    if (first == nullptr ||
        priv_rova_umem_export(first.get(), &descriptor, &length) != ROVA_SUCCESS) {
        return 0;  // an empty block cannot be exported
    }
    const region second = import(static_cast<const uint8_t*>(descriptor), length);
    require(second != nullptr, "what was exported can be imported");
    require(second->get_size() == first->get_size(), "the size comes back");
    require(second->get_page_size() == first->get_page_size(), "the page size comes back");
    require(second->get_access_flags() == first->get_access_flags(), "the flags come back");

    void* again = nullptr;
    size_t again_length = 0;
    require(priv_rova_umem_export(second.get(), &again, &again_length) == ROVA_SUCCESS &&
                std::equal(static_cast<const char*>(descriptor),
                           static_cast<const char*>(descriptor) + length,
                           static_cast<const char*>(again),
                           static_cast<const char*>(again) + again_length),
            "the descriptor comes out the same");
    return 0;
}
