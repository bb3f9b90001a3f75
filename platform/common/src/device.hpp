/*
 * What is behind a rova_dev of the platforms of this repository.
 */
#pragma once

#include <memory>
#include <utility>

#include "device_abstraction/idevice_adapter.hpp"
#include "failure.hpp"
#include "rova_dev.hpp"
#include "umem_registry.hpp"

namespace platform {

class device final : public device_abstraction::idevice_adapter {
public:
    explicit device(std::unique_ptr<umem_factory> factory)
        : m_registry(std::make_shared<umem_registry>(std::move(factory)))
    {}

    std::shared_ptr<device_abstraction::itlox_adapter> get_tlox_adapter() noexcept override
    {
        return m_registry;
    }

    umem_registry& registry() const { return *m_registry; }

private:
    std::shared_ptr<umem_registry> m_registry;
};

/** Opens a device whose registrations the factory makes. */
std::unique_ptr<rova_dev> open_device(std::unique_ptr<umem_factory> factory);

/**
 * The device behind `dev`. Throws ROVA_ERROR_INVALID_VALUE when it is another platform's, and
 * ROVA_ERROR_BAD_STATE in a child of the process that opened it.
 */
device& device_of(const rova_dev* dev, location where);

}  // namespace platform
