#include "device.hpp"

#include "rova_platform.h"

namespace platform {
namespace {

/** The registration that a transfer goes to. */
std::shared_ptr<tlox_umem> find_umem(const rova_dev* dev, uint32_t umem_id, const void* data,
                                     size_t size, location where)
{
    const umem_registry& registry = device_of(dev, where).registry();
    if (size != 0) {
        check_not_null(data, "data", where);
    }
    return registry.find(umem_id);
}

}  // namespace

std::unique_ptr<rova_dev> open_device(std::unique_ptr<umem_factory> factory)
{
    auto opened = std::make_unique<rova_dev>();
    opened->device_adapter = std::make_shared<device>(std::move(factory));
    return opened;
}

device& device_of(const rova_dev* dev, location where)
{
    check_not_null(dev, "dev", where);
    auto* const found = dynamic_cast<device*>(dev->device_adapter.get());
    if (found == nullptr) {
        fail(ROVA_ERROR_INVALID_VALUE, where, "parameter dev=%p is not a device of this platform",
             static_cast<const void*>(dev));
    }
    found->registry().check_opener(where);
    return *found;
}

}  // namespace platform

rova_error_t rova_platform_dev_close(rova_dev* dev)
{
    return platform::guarded(ROVA_HERE, "Failed to close the device", [=](platform::location here) {
        platform::device_of(dev, here).registry().close();
        const std::unique_ptr<rova_dev> closed(dev);
    });
}

rova_error_t rova_platform_dev_count_registrations(const rova_dev* dev, size_t* count)
{
    return platform::guarded(ROVA_HERE, "Failed to count registrations",
                             [=](platform::location here) {
                                 const platform::device& device = platform::device_of(dev, here);
                                 platform::check_not_null(count, "count", here);
                                 *count = device.registry().count();
                             });
}

rova_error_t rova_platform_dev_get_region(const rova_dev* dev, uint32_t umem_id,
                                          rova_platform_region* region)
{
    return platform::guarded(ROVA_HERE, "Failed to describe a umem", [=](platform::location here) {
        const platform::device& of = platform::device_of(dev, here);
        platform::check_not_null(region, "region", here);
        const auto umem = of.registry().find(umem_id);
        *region = {umem->size(), umem->access_flags()};
    });
}

rova_error_t rova_platform_dev_read(rova_dev* dev, uint32_t umem_id, uint64_t offset, void* data,
                                    size_t size)
{
    return platform::guarded(ROVA_HERE, "Failed to read a umem", [=](platform::location here) {
        platform::find_umem(dev, umem_id, data, size, here)->read(offset, data, size);
    });
}

rova_error_t rova_platform_dev_write(rova_dev* dev, uint32_t umem_id, uint64_t offset,
                                     const void* data, size_t size)
{
    return platform::guarded(ROVA_HERE, "Failed to write a umem", [=](platform::location here) {
        platform::find_umem(dev, umem_id, data, size, here)->write(offset, data, size);
    });
}
