#include "device.hpp"

#include "device_context.hpp"
#include "rova_fabric_platform.h"
#include "umem.hpp"

rova_error_t rova_fabric_dev_open(const struct rova_fabric_options* options, rova_dev** dev)
{
    return platform::guarded(ROVA_HERE, "Failed to open a device", [=](platform::location here) {
        platform::check_not_null(options, "options", here);
        platform::check_not_null(dev, "dev", here);
        auto context = std::make_shared<fabric::device_context>(*options);
        *dev = platform::open_device(std::make_unique<fabric::umem_factory>(std::move(context)))
                   .release();
    });
}
