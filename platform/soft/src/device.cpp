#include "device.hpp"

#include "rova_dev.hpp"
#include "rova_soft_platform.h"

namespace {

void transfer(soft::direction way, const rova_dev* dev, uint32_t umem_id, uint64_t offset,
              void* data, size_t size, soft::location where)
{
    const soft::device& device = soft::device_of(dev, where);
    if (size != 0) {
        soft::check_not_null(data, "data", where);
    }
    device.registry().find(umem_id)->transfer(way, offset, data, size);
}

}  // namespace

namespace soft {

device& device_of(const rova_dev* dev, location where)
{
    check_not_null(dev, "dev", where);
    auto* const found = dynamic_cast<device*>(dev->device_adapter.get());
    if (found == nullptr) {
        fail(ROVA_ERROR_INVALID_VALUE, where, "parameter dev=%p is no device of this platform",
             static_cast<const void*>(dev));
    }
    return *found;
}

}  // namespace soft

rova_error_t rova_soft_dev_open(rova_dev** dev)
{
    return soft::guarded(ROVA_HERE, "Failed to open a device", [=](soft::location here) {
        soft::check_not_null(dev, "dev", here);
        auto opened = std::make_unique<rova_dev>();
        opened->device_adapter = std::make_shared<soft::device>();
        *dev = opened.release();
    });
}

rova_error_t rova_soft_dev_close(rova_dev* dev)
{
    return soft::guarded(ROVA_HERE, "Failed to close the device", [=](soft::location here) {
        soft::device_of(dev, here).registry().close();
        const std::unique_ptr<rova_dev> closed(dev);
    });
}

rova_error_t rova_soft_dev_count_registrations(const rova_dev* dev, size_t* count)
{
    return soft::guarded(ROVA_HERE, "Failed to count registrations", [=](soft::location here) {
        const soft::device& device = soft::device_of(dev, here);
        soft::check_not_null(count, "count", here);
        *count = device.registry().count();
    });
}

rova_error_t rova_soft_dev_read(rova_dev* dev, uint32_t umem_id, uint64_t offset, void* data,
                                size_t size)
{
    return soft::guarded(ROVA_HERE, "Failed to read a umem", [=](soft::location here) {
        transfer(soft::direction::read, dev, umem_id, offset, data, size, here);
    });
}

rova_error_t rova_soft_dev_write(rova_dev* dev, uint32_t umem_id, uint64_t offset, const void* data,
                                 size_t size)
{
    return soft::guarded(ROVA_HERE, "Failed to write a umem", [=](soft::location here) {
        // Writing does not change the caller's bytes.
        transfer(soft::direction::write, dev, umem_id, offset, const_cast<void*>(data), size, here);
    });
}
