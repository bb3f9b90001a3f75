#include "fabric_device.hpp"

#include <unistd.h>

#include "programs.hpp"
#include "rova_fabric_platform.h"

namespace bench {
void device_closer::operator()(rova_dev* dev) const
{
    require(rova_platform_dev_close(dev) == ROVA_SUCCESS, "a device was not closed");
}

device open_fabric(const char* address)
{
    rova_fabric_options options = {};
    options.address = address;
    options.provider = "net";
    rova_dev* dev = nullptr;
    require(rova_fabric_dev_open(&options, &dev) == ROVA_SUCCESS, "no fabric device");
    return device(dev);
}

region add_region(rova_dev* dev, void* memory, size_t size)
{
    priv_rova_umem* made = nullptr;
    require(priv_rova_umem_create(dev, memory, size, read_write, &made) == ROVA_SUCCESS,
            "a region was not registered");
    return region(made);
}

fabric_device::fabric_device(const char* address, size_t size)
    : transport(size),
      m_dev(open_fabric(address)),
      m_offered(add_region(m_dev.get(), memory().data(), size))
{}

std::string fabric_device::name()
{
    const auto [bytes, length] = ask_for_descriptor(m_offered.get());
    return {bytes, bytes + length};
}

/** The device has a thread for that. */
void fabric_device::serve()
{
    for (;;) {
        ::pause();
    }
}

void fabric_device::connect(const std::string& name)
{
    priv_rova_umem* made = nullptr;
    require(priv_rova_umem_create_from_export(m_dev.get(), name.data(), name.size(), m_dev.get(),
                                              &made) == ROVA_SUCCESS,
            "a region was not imported");
    m_reached.reset(made);
    require(priv_rova_umem_id_get(made, &m_id) == ROVA_SUCCESS, "a region without an id");
}

void fabric_device::move(bool reading, void* data, size_t size)
{
    require((reading ? rova_platform_dev_read(m_dev.get(), m_id, 0, data, size)
                     : rova_platform_dev_write(m_dev.get(), m_id, 0, data, size)) == ROVA_SUCCESS,
            "a transfer failed");
}

}  // namespace bench
