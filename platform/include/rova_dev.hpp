/**
 * @file
 * @defgroup platform_dev Device (rova_dev.hpp)
 * @ingroup platform_interfaces
 *
 * The device object as other components see it.
 *
 * @{
 */
#pragma once

#include <memory>

#include "device_abstraction/idevice_adapter.hpp"

/**
 * An open device. Owned by the device layer, which opens and closes it; it outlives every region
 * that is registered with it. The adapter is non-null from open to close.
 */
struct rova_dev {
    /** What the device can be asked to do. */
    std::shared_ptr<device_abstraction::idevice_adapter> device_adapter;
};

/** @} */
