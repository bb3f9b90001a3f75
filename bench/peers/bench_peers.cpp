/*
 * What others offer for the same work, for information: UCX's put and get beside the fabric
 * device's transfers, and the making and naming of a region beside the component's, over a device
 * that does nothing.
 */
#include <memory>
#include <optional>

#include "bare_fabric.hpp"
#include "bare_ucx.hpp"
#include "component.hpp"
#include "fabric_device.hpp"
#include "table.hpp"
#include "transport.hpp"

namespace bench {
namespace {

void add_transfers(table& rows)
{
    const other_process far_device(open_end<fabric_device>);
    const other_process far_libfabric(open_end<bare_fabric>);
    const other_process far_ucx(open_end<bare_ucx>);
    const auto device = far_device.connect();
    const auto libfabric = far_libfabric.connect();
    const auto ucx = far_ucx.connect();
    compare_transfers(rows, *device,
                      {{"libfabric alone", libfabric.get()}, {"UCX over TCP", ucx.get()}},
                      [](size_t) { return std::nullopt; });
}

void add_regions(table& rows)
{
    // The shortest that the other benchmarks measure; UCX's key for TCP is shorter still.
    constexpr size_t block_length = 64;
    static char memory[4096];
    scripted_device device(block_length);
    const auto context = open_ucx();
    bare_fabric libfabric("127.0.0.2", 1);

    const auto create_and_destroy = repeat([&] { return device.make_region() != nullptr; });
    rows.compare("create and destroy", create_and_destroy, "fi_mr_reg, fi_close", repeat([&] {
                     return libfabric.register_and_deregister(memory, sizeof(memory)), 0;
                 }),
                 std::nullopt);
    rows.compare("create and destroy", create_and_destroy, "ucp_mem_map, ucp_mem_unmap",
                 repeat([&] { return ucx_memory(context.get(), memory, sizeof(memory)), 0; }),
                 std::nullopt);
    rows.compare(of_bytes("create, export and destroy", block_length),
                 repeat([&] { return ask_for_descriptor(device.make_region().get()).second; }),
                 "the same with ucp_rkey_pack", repeat([&] {
                     return ucx_memory(context.get(), memory, sizeof(memory)).pack().length;
                 }),
                 std::nullopt);

    const region exported = device.make_region();
    const ucx_memory mapped(context.get(), memory, sizeof(memory));
    rows.compare("export again", repeat([&] { return ask_for_descriptor(exported.get()).second; }),
                 "ucp_rkey_pack", repeat([&] { return mapped.pack().length; }), std::nullopt);
}

}  // namespace

void add_rows(table& rows)
{
    add_transfers(rows);
    add_regions(rows);
}

}  // namespace bench
