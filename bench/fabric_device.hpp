/*
 * The fabric device, as a transport to compare with others.
 */
#pragma once

#include <memory>

#include "component.hpp"
#include "rova_platform.h"
#include "transport.hpp"

namespace bench {

struct device_closer {
    void operator()(rova_dev* dev) const;
};
using device = std::unique_ptr<rova_dev, device_closer>;

/** A fabric device at an address of this host, with the provider "net". */
device open_fabric(const char* address);

constexpr uint32_t read_write = ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE;

/** A region that may be read and written. */
region add_region(rova_dev* dev, void* memory, size_t size);

class fabric_device final : public transport {
public:
    fabric_device(const char* address, size_t size);

    std::string name() override;
    [[noreturn]] void serve() override;
    void connect(const std::string& name) override;
    void move(bool reading, void* data, size_t size) override;

private:
    device m_dev;
    region m_offered;
    region m_reached;
    uint32_t m_id = 0; /**< of what is reached */
};

}  // namespace bench
