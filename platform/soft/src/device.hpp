/*
 * The software device behind a rova_dev.
 */
#pragma once

#include <memory>

#include "device_abstraction/idevice_adapter.hpp"
#include "failure.hpp"
#include "umem_registry.hpp"

struct rova_dev;

namespace soft {

class device final : public device_abstraction::idevice_adapter {
public:
    std::shared_ptr<device_abstraction::itlox_adapter> get_tlox_adapter() noexcept override
    {
        return m_registry;
    }

    umem_registry& registry() const { return *m_registry; }

private:
    std::shared_ptr<umem_registry> m_registry = std::make_shared<umem_registry>();
};

/** The software device of `dev`; throws ROVA_ERROR_INVALID_VALUE when there is none behind it. */
device& device_of(const rova_dev* dev, location where);

}  // namespace soft
