/*
 * The fabric device: transfers compared with a loop of plain libfabric, and operations without
 * network compared with the software device.
 */
#include <memory>

#include "bare_fabric.hpp"
#include "fabric_device.hpp"
#include "priv_rova_umem_api.h"
#include "programs.hpp"
#include "rova_dev.hpp"
#include "rova_platform.h"
#include "rova_soft_platform.h"
#include "table.hpp"
#include "transport.hpp"

namespace bench {
namespace {

device open_soft()
{
    rova_dev* dev = nullptr;
    require(rova_soft_dev_open(&dev) == ROVA_SUCCESS, "no software device");
    return device(dev);
}

/**
 * Small transfers are judged by latency; large ones must reach nine tenths of the throughput.
 */
double limit_of(size_t size)
{
    return size <= 4096 ? 1.25 : 1 / 0.9;
}

void add_transfers(table& rows)
{
    const other_process far_device(open_end<fabric_device>);
    const other_process far_libfabric(open_end<bare_fabric>);
    const auto device = far_device.connect();
    const auto libfabric = far_libfabric.connect();
    compare_transfers(rows, *device, {{"libfabric alone", libfabric.get()}}, limit_of);
}

side register_and_deregister(rova_dev* dev)
{
    return repeat([adapter = dev->device_adapter->get_tlox_adapter()] {
        static char memory[4096];
        const auto made = adapter->register_umem(memory, sizeof(memory), read_write, 4096);
        return adapter->deregister_umem(made.first);
    });
}

side second_export(rova_dev* dev)
{
    static char memory[4096];
    const std::shared_ptr<priv_rova_umem> exported = add_region(dev, memory, sizeof(memory));
    ask_for_descriptor(exported.get());
    return repeat([exported] {
        void* bytes = nullptr;
        size_t length = 0;
        return priv_rova_umem_export(exported.get(), &bytes, &length);
    });
}

}  // namespace

void add_rows(table& rows)
{
    add_transfers(rows);
    const device fabric = open_fabric("127.0.0.2");
    const device soft = open_soft();
    rows.compare("fabric register and deregister", register_and_deregister(fabric.get()),
                 "the software device", register_and_deregister(soft.get()), 1.5);
    rows.compare("fabric second export", second_export(fabric.get()), "the software device",
                 second_export(soft.get()), 1.25);
}

}  // namespace bench
