/*
 * What a device gives access to.
 */
#pragma once

#include <memory>

#include "device_abstraction/itlox_adapter.hpp"

namespace device_abstraction {

/** One open device. Safe from any number of threads. */
class idevice_adapter {
public:
    virtual ~idevice_adapter() = default;

    /**
     * The device's object adapter; never null while the device is open. A caller holds it for one
     * operation and lets it go.
     */
    virtual std::shared_ptr<itlox_adapter> get_tlox_adapter() noexcept = 0;
};

}  // namespace device_abstraction
