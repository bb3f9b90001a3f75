/**
 * @file
 * @defgroup platform_device_adapter Device adapter (device_abstraction/idevice_adapter.hpp)
 * @ingroup platform_interfaces
 *
 * What a device gives access to.
 */
#pragma once

#include <memory>

#include "device_abstraction/itlox_adapter.hpp"

namespace device_abstraction {

/**
 * One open device. Safe from any number of threads.
 *
 * @ingroup platform_device_adapter
 */
class idevice_adapter {
public:
    virtual ~idevice_adapter() = default;

    /**
     * The device's object adapter. A caller holds it for one operation only.
     *
     * @return the adapter; never null while the device is open.
     */
    virtual std::shared_ptr<itlox_adapter> get_tlox_adapter() noexcept = 0;
};

}  // namespace device_abstraction
