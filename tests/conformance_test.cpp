// The check for device layers: the software platform passes it, and each check finds a fault.

#include <unistd.h>

#include <array>
#include <sstream>

#include "rova_conformance.hpp"
#include "support/soft_device.hpp"

namespace {

using device_abstraction::idevice_adapter;
using device_abstraction::itlox_adapter;
using rova::conformance::device_layer;
using support::registration;

/** A software device with one fault, which is known by its name. */
struct faulty final : rova_dev, idevice_adapter, itlox_adapter {
    explicit faulty(const std::string& fault) : m_fault(fault)
    {
        rova_soft_dev_open(&m_soft);
        m_real = m_soft->device_adapter->get_tlox_adapter();
        // Whoever holds the device owns it; the adapters only refer to it.
        device_adapter = {std::shared_ptr<void>(), this};
        m_adapters = {{m_real, this}};
    }

    bool has(const char* fault) const { return m_fault == fault; }

    registration other_memory() const
    {
        static std::string memory(1 << 20, ' ');
        return m_real->register_umem(memory.data(), memory.size(), support::read_write, 4096);
    }

    template <class operation>
    registration make(const operation& real)
    try {
        const registration made = has("takes other memory") ? other_memory() : real();
        return {has("no handle") ? nullptr : made.first, has("one id") ? 7 : made.second};
    } catch (const rova::exception&) {
        if (has("leaves something behind")) {
            other_memory();
        }
        if (has("varies its codes")) {
            throw rova::exception(static_cast<rova_error_t>(++m_last_code), "spoilt", ROVA_HERE);
        }
        return has("refuses nothing") ? other_memory()
               : has("hangs")         ? registration(nullptr, ::pause())
                                      : throw;
    }

    std::shared_ptr<itlox_adapter> get_tlox_adapter() noexcept override
    {
        if (has("keeps its adapter")) {
            m_adapters.push_back(m_adapters[0]);
        }
        return has("has no adapter") ? nullptr : m_adapters[0];
    }
    registration register_umem(void* a, size_t s, uint32_t f, size_t p) override
    {
        return make([=] { return m_real->register_umem(a, s, f, p); });
    }
    registration register_umem_dmabuf(int fd, void* a, size_t o, size_t s, uint32_t f,
                                      size_t p) override
    {
        ::close(has("closes descriptors") ? fd : -1);
        return m_real->register_umem_dmabuf(fd, a, o, s, f, p);
    }
    rova_error_t deregister_umem(tlox_umem* u) noexcept override
    {
        return has("ends nothing") ? ROVA_SUCCESS : m_real->deregister_umem(u);
    }
    std::vector<uint8_t> export_umem(tlox_umem* u) override
    {
        const bool anything = has("exports anything");
        return anything || has("exports nothing") ? std::vector<uint8_t>(anything)
                                                  : m_real->export_umem(u);
    }
    registration import_umem(const uint8_t* b, size_t l) override
    {
        return make([=] { return m_real->import_umem(b, has("ignores lengths") ? 48 : l); });
    }
    void release_umem(tlox_umem* u) override
    {
        return has("ends too much") ? void(m_real->deregister_umem(u)) : m_real->release_umem(u);
    }

    const std::string m_fault;
    int m_last_code = ROVA_SUCCESS;
    rova_dev* m_soft = nullptr;
    std::shared_ptr<itlox_adapter> m_real;
    std::vector<std::shared_ptr<itlox_adapter>> m_adapters;
};

device_layer layer_that(const std::string& fault)
{
    const auto soft = [](rova_dev* dev) { return static_cast<faulty*>(dev)->m_soft; };
    device_layer layer;
    layer.open = [=] { return std::make_unique<faulty>(fault).release(); };
    layer.close = [=](rova_dev* dev) {
        return rova_soft_dev_close(std::unique_ptr<faulty>(static_cast<faulty*>(dev))->m_soft);
    };
    layer.access_flags = support::read_write;
    layer.read = [=](auto* dev, auto... args) { return rova_soft_dev_read(soft(dev), args...); };
    layer.write = [=](auto* dev, auto... args) { return rova_soft_dev_write(soft(dev), args...); };
    return layer;
}

/** For each check, in order: a fault that it has to find, and a part of what it says then. */
const std::vector<std::array<std::string, 3>> rows = {
    {"has no adapter", "adapter_is_there", "gave null"},
    {"keeps its adapter", "adapter_is_given_back", "use count was"},
    {"no handle", "registering_gives_a_handle", "a null handle came back"},
    {"one id", "ids_are_unique", "have the id 7"},
    {"refuses nothing", "refusals_are_exceptions", "the address space was registered"},
    {"leaves something behind", "refusals_change_nothing", "gave ROVA_ERROR_IN_USE"},
    {"ends nothing", "deregistering_ends", "again gave ROVA_SUCCESS"},
    {"ends nothing", "unknown_handles_are_refused", "the null handle gave ROVA_SUCCESS"},
    {"closes descriptors", "dmabuf_stays_the_callers", "was closed"},
    {"takes other memory", "memory_is_reached_by_id", "the last byte was not read"},
    {"takes other memory", "nothing_else_is_reached", "2 bytes were read at"},
    {"exports nothing", "export_gives_a_block", "is empty"},
    {"exports anything", "no_handle_is_not_exported", "the null handle gave a block"},
    {"one id", "import_makes_a_registration", "two imports of one block share"},
    {"takes other memory", "imports_reach_the_same_memory", "does not read the memory"},
    {"ignores lengths", "wrong_sizes_are_refused", "the process"},
    {"hangs", "damaged_blocks_are_harmless", "within 1 seconds"},
    {"ends too much", "release_spends_the_handle", "was not refused"},
    {"ends too much", "release_does_not_end", "not to be read any more"},
    {"exports nothing", "regions_live_their_lives", "priv_rova_umem_export gave"},
    {"varies its codes", "codes_of_refusals_arrive", "and the caller got"},
    {"one id", "threads_do_not_meet", "two threads have a live registration"},
};

TEST(conformance, the_software_platform_passes_and_each_check_finds_a_fault)
{
    // What the checks provoke is not for the eyes of whoever runs the tests.
    rova_soft_log_set_level(ROVA_LOG_LEVEL_DISABLE);
    const auto good = run(layer_that("is good"));
    ASSERT_EQ(good.size(), rows.size());
    std::ostringstream text;
    EXPECT_EQ(report(good, text), 0U) << text.str();
    for (size_t i = 0; i < rows.size(); ++i) {
        const auto& [fault, check, seen] = rows[i];
        EXPECT_EQ(good[i].name, check);
        EXPECT_EQ(good[i].verdict, rova::conformance::outcome::passed) << check;
        const auto bad = run(layer_that(fault), {check, true, fault == "hangs" ? 1U : 120U});
        EXPECT_EQ(report(bad, text), 1U) << fault;
        EXPECT_NE(bad.at(0).seen.find(seen), std::string::npos) << bad.at(0).seen;
    }
}

TEST(conformance, checks_of_memory_are_skipped_where_it_is_out_of_reach)
{
    device_layer layer = layer_that("is good");
    layer.write = nullptr;
    EXPECT_EQ(run(layer, {"memory_is_reached_by_id"}).at(0).verdict,
              rova::conformance::outcome::skipped);
    EXPECT_THROW(run(layer, {"no_such_check"}), std::invalid_argument);
    EXPECT_THROW(run(device_layer()), std::invalid_argument);
}

}  // namespace
