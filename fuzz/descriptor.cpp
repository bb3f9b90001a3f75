// Any bytes as a descriptor, on the software device.

#include "priv_rova_umem_api.h"
#include "target.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static rova_dev* const dev = [] {
        rova_dev* opened = nullptr;
        require(rova_soft_dev_open(&opened) == ROVA_SUCCESS, "a device opens");
        return opened;
    }();

    char here = 0;
    priv_rova_umem* umem = nullptr;
    const rova_error_t code = priv_rova_umem_create_from_export(dev, data, size, &here, &umem);
    require((code == ROVA_SUCCESS) == (umem != nullptr), "a region comes with success only");
    if (umem != nullptr) {
        require(priv_rova_umem_destroy(umem) == ROVA_SUCCESS, "an imported region can be ended");
    }
    size_t registrations = 1;
    require(rova_platform_dev_count_registrations(dev, &registrations) == ROVA_SUCCESS &&
                registrations == 0,
            "nothing stays registered");
    return 0;
}
