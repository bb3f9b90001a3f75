// The check for device layers: the software platform passes it, and spoilt adapters do not.

#include "rova_conformance.hpp"

#include <unistd.h>

#include <sstream>

#include "support/soft_device.hpp"

namespace {

using rova::conformance::device_layer;
using rova::conformance::result;
using entry = support::registration;

/** The adapter of a software device with one fault, which is known by its name. */
struct spoilt final : device_abstraction::idevice_adapter, device_abstraction::itlox_adapter {
    spoilt(rova_dev dev, std::string fault) : m_soft(std::move(dev)), m_fault(std::move(fault)) {}
    static rova_dev* of(rova_dev* d) { return &static_cast<spoilt&>(*d->device_adapter).m_soft; }

    // Counted with the real one, so that it shows if the platform keeps it.
    std::shared_ptr<itlox_adapter> get_tlox_adapter() noexcept override { return {m_real, this}; }
    entry register_umem(void* a, size_t s, uint32_t f, size_t p) override
    {
        const entry made = m_real->register_umem(a, s, f, p);
        return {made.first, m_fault == "one id" ? 7 : made.second};
    }
    entry register_umem_dmabuf(int fd, void* a, size_t o, size_t s, uint32_t f, size_t p) override
    {
        return m_real->register_umem_dmabuf(fd, a, o, s, f, p);
    }
    rova_error_t deregister_umem(tlox_umem* u) noexcept override
    {
        return m_fault == "ends nothing" ? ROVA_SUCCESS : m_real->deregister_umem(u);
    }
    std::vector<uint8_t> export_umem(tlox_umem* u) override
    {
        return m_fault == "exports nothing" ? std::vector<uint8_t>() : m_real->export_umem(u);
    }
    entry import_umem(const uint8_t* b, size_t l) override
    {
        return m_fault == "hangs" ? entry(nullptr, ::pause())
                                  : m_real->import_umem(b, m_fault == "ignores lengths" ? 48 : l);
    }
    void release_umem(tlox_umem* u) override { m_real->release_umem(u); }

    rova_dev m_soft;
    std::string m_fault;
    std::shared_ptr<itlox_adapter> m_real = m_soft.device_adapter->get_tlox_adapter();
};

device_layer platform_with(const std::string& fault)
{
    device_layer layer;
    layer.open = [=] {
        rova_dev* dev = nullptr;
        rova_soft_dev_open(&dev);
        dev->device_adapter = std::make_shared<spoilt>(*dev, fault);
        return dev;
    };
    layer.close = [](auto* d) { return rova_soft_dev_close(&(*d = rova_dev(*spoilt::of(d)))); };
    layer.access_flags = support::read_write;
    layer.read = [](auto* d, auto... args) { return rova_soft_dev_read(spoilt::of(d), args...); };
    layer.write = [](auto* d, auto... args) { return rova_soft_dev_write(spoilt::of(d), args...); };
    return layer;
}

/** Expects as many failures, and a part of what is reported. */
void expect_report(const std::vector<result>& results, size_t failed, const std::string& part)
{
    std::ostringstream text;
    EXPECT_EQ(report(results, text), failed) << text.str();
    EXPECT_NE(text.str().find(part), std::string::npos) << part << '\n' << text.str();
}

TEST(conformance, the_software_platform_passes_and_spoilt_adapters_fail)
{
    rova_soft_log_set_level(ROVA_LOG_LEVEL_DISABLE);
    device_layer good = platform_with("no fault");
    expect_report(run(good), 0, " 0 failed, 0 skipped");
    good.write = nullptr;
    expect_report(run(good, {"memory_is_reached_by_id"}), 0, "0 passed, 0 failed, 1 skipped");
    EXPECT_THROW(run(good, {"no_such_check"}), std::invalid_argument);

    const char* const rows[][3] = {
        {"one id", "ids_are_unique", "have the id 7"},
        {"ends nothing", "deregistering_ends", "again gave ROVA_SUCCESS"},
        {"exports nothing", "export_gives_a_block", "is empty"},
        {"ends nothing", "unknown_handles_are_refused", "the null handle gave ROVA_SUCCESS"},
        {"ends nothing", "release_spends_the_handle", "gave ROVA_SUCCESS"},
        {"exports nothing", "regions_live_their_lives", "priv_rova_umem_export gave"},
        {"one id", "threads_do_not_meet", "two threads have a live registration"},
        {"ignores lengths", "wrong_sizes_are_refused", "the process "},
        {"hangs", "damaged_blocks_are_harmless", "within 1 seconds"},
    };
    for (const auto& [fault, check, seen] : rows) {
        const unsigned timeout_s = fault == std::string("hangs") ? 1 : 120;
        expect_report(run(platform_with(fault), {check, true, timeout_s}), 1, seen);
    }
}

}  // namespace
