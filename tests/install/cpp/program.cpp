// Exports a region and imports it, and provokes a refused registration.
#include <iostream>
#include <stdexcept>
#include <string>

#include "priv_rova_umem_api.h"
#include "rova_soft_platform.h"
#include "rova_umem.h"

namespace {

void must(rova_error_t code, rova_error_t wanted = ROVA_SUCCESS)
{
    if (code != wanted) {
        throw std::runtime_error(rova_error_get_name(code));
    }
}

std::string through_a_descriptor(rova_dev* dev, std::string text)
{
    priv_rova_umem* region = nullptr;
    must(priv_rova_umem_create(dev, text.data(), text.size(), ROVA_PLATFORM_ACCESS_READ, &region));
    void* descriptor = nullptr;
    size_t length = 0;
    must(priv_rova_umem_export(region, &descriptor, &length));

    priv_rova_umem* imported = nullptr;
    must(priv_rova_umem_create_from_export(dev, descriptor, length, text.data(), &imported));
    uint32_t id = 0;
    must(priv_rova_umem_id_get(imported, &id));
    std::string seen(text.size(), '\0');
    must(rova_platform_dev_read(dev, id, 0, seen.data(), seen.size()));

    must(priv_rova_umem_destroy(imported));
    must(priv_rova_umem_destroy(region));
    return seen;
}

// The platform reports the refusal to the component as an exception.
void check_refusal(rova_dev* dev)
{
    char byte = 0;
    rova_umem* region = nullptr;
    must(rova_platform_log_set_level(ROVA_LOG_LEVEL_DISABLE));
    must(rova_umem_create(dev, &byte, SIZE_MAX, ROVA_PLATFORM_ACCESS_READ, &region),
         ROVA_ERROR_INVALID_VALUE);
}

}  // namespace

int main()
{
    rova_dev* dev = nullptr;
    must(rova_soft_dev_open(&dev));
    std::cout << through_a_descriptor(dev, "Hello, other region!") << '\n';
    check_refusal(dev);
    must(rova_platform_dev_close(dev));
}
