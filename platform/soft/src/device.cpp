/*
 * Opens a software device.
 */
#include "device.hpp"

#include "rova_soft_platform.h"
#include "umem.hpp"

rova_error_t rova_soft_dev_open(rova_dev** dev)
{
    return platform::guarded(ROVA_HERE, "Failed to open a device", [=](platform::location here) {
        platform::check_not_null(dev, "dev", here);
        *dev = platform::open_device(std::make_unique<soft::umem_factory>()).release();
    });
}
