/*
 * The check for device layers: the software platform passes it, and each of its checks finds
 * something.
 */
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <memory>
#include <numeric>
#include <set>
#include <sstream>
#include <thread>

#include "rova_conformance.hpp"
#include "support/soft_device.hpp"

namespace {

using device_abstraction::idevice_adapter;
using device_abstraction::itlox_adapter;
using rova::conformance::device_layer;
using rova::conformance::outcome;
using support::registration;
using bytes = std::vector<uint8_t>;
using transfer = std::function<rova_error_t(rova_dev*, uint32_t, uint64_t, void*, size_t)>;

/** The size of the software device's blocks. */
constexpr size_t block_size = 48;

std::array<char, 4096> somebody_elses;

/** A software device whose operations can be replaced. */
struct faulty final : rova_dev, idevice_adapter, itlox_adapter {
    faulty()
    {
        rova_soft_dev_open(&m_soft);
        m_real = m_soft->device_adapter->get_tlox_adapter();
        // Whoever holds the device owns it; the adapters only refer to it.
        device_adapter = {std::shared_ptr<void>(), this};
        m_adapter = {m_real, this};
    }

    std::shared_ptr<itlox_adapter> get_tlox_adapter() noexcept override { return m_adapter; }
    registration register_umem(void* a, size_t s, uint32_t f, size_t p) override
    {
        return m_register(a, s, f, p);
    }
    registration register_umem_dmabuf(int fd, void* a, size_t o, size_t s, uint32_t f,
                                      size_t p) override
    {
        if (m_closes_descriptors) {
            ::close(fd);
        }
        return m_real->register_umem_dmabuf(fd, a, o, s, f, p);
    }
    rova_error_t deregister_umem(tlox_umem* u) noexcept override { return m_deregister(u); }
    bytes export_umem(tlox_umem* u) override { return m_export(u); }
    registration import_umem(const uint8_t* b, size_t l) override { return m_import(b, l); }
    void release_umem(tlox_umem* u) override { m_release(u); }

    rova_dev* m_soft = nullptr;
    std::shared_ptr<itlox_adapter> m_real;
    std::shared_ptr<itlox_adapter> m_adapter;
    std::vector<std::shared_ptr<itlox_adapter>> m_kept;
    bool m_closes_descriptors = false;
    unsigned m_sum = 0;
    std::function<registration(void*, size_t, uint32_t, size_t)> m_register = [this](auto... args) {
        return m_real->register_umem(args...);
    };
    std::function<rova_error_t(tlox_umem*)> m_deregister = [this](auto* umem) {
        return m_real->deregister_umem(umem);
    };
    std::function<bytes(tlox_umem*)> m_export = [this](auto* umem) {
        return m_real->export_umem(umem);
    };
    std::function<registration(const uint8_t*, size_t)> m_import = [this](auto... args) {
        return m_real->import_umem(args...);
    };
    std::function<void(tlox_umem*)> m_release = [this](auto* umem) { m_real->release_umem(umem); };
    transfer m_read = rova_soft_dev_read;
};

/** Puts one fault into a device. */
using spoiler = std::function<void(faulty&)>;

device_layer layer_of(const spoiler& spoil)
{
    device_layer layer;
    layer.open = [=] {
        auto dev = std::make_unique<faulty>();
        spoil(*dev);
        return dev.release();
    };
    layer.close = [](rova_dev* dev) {
        const std::unique_ptr<faulty> owned(static_cast<faulty*>(dev));
        return rova_soft_dev_close(owned->m_soft);
    };
    layer.access_flags = support::read_write;
    layer.read = [](rova_dev* dev, auto... args) {
        auto* const subject = static_cast<faulty*>(dev);
        return subject->m_read(subject->m_soft, args...);
    };
    layer.write = [](rova_dev* dev, auto... args) {
        return rova_soft_dev_write(static_cast<faulty*>(dev)->m_soft, args...);
    };
    return layer;
}

[[noreturn]] void refuse(rova_error_t code)
{
    throw rova::exception(code, "spoilt", ROVA_HERE);
}

/** Registers for real, and does something else when that is refused. */
spoiler when_refused(const std::function<registration(faulty&)>& instead)
{
    return [=](faulty& dev) {
        dev.m_register = [&dev, instead](auto... args) {
            try {
                return dev.m_real->register_umem(args...);
            } catch (const rova::exception&) {
                return instead(dev);
            }
        };
    };
}

/** The same for blocks. */
spoiler when_block_refused(const std::function<registration()>& instead)
{
    return [=](faulty& dev) {
        dev.m_import = [&dev, instead](auto... args) {
            try {
                return dev.m_real->import_umem(args...);
            } catch (const rova::exception&) {
                return instead();
            }
        };
    };
}

registration register_something_else(faulty& dev)
{
    return dev.m_real->register_umem(somebody_elses.data(), somebody_elses.size(),
                                     support::read_write, 4096);
}

/** A fault, the check that has to find it, and a part of what the check says then. */
struct row {
    const char* check;
    const char* seen;
    spoiler spoil;
    unsigned timeout_s = 120;
};

const std::vector<row> rows = {
    {"adapter_is_there", "get_tlox_adapter gave null", [](faulty& d) { d.m_adapter = nullptr; }},
    {"adapter_is_given_back", "use count was",
     [](faulty& d) {
         d.m_export = [&d](auto* umem) {
             d.m_kept.push_back(d.m_adapter);
             return d.m_real->export_umem(umem);
         };
     }},
    {"registering_gives_a_handle", "a null handle came back",
     [](faulty& d) { d.m_register = [](auto...) { return registration(nullptr, 1); }; }},
    {"ids_are_unique", "have the id 7",
     [](faulty& d) {
         d.m_register = [&d](auto... args) {
             return registration(d.m_real->register_umem(args...).first, 7);
         };
     }},
    {"refusals_are_exceptions", "a null handle came back",
     when_refused([](auto&) { return registration(nullptr, 0); })},
    {"refusals_are_exceptions", "carries the code ROVA_SUCCESS",
     when_refused([](auto&) -> registration { refuse(ROVA_SUCCESS); })},
    {"refusals_are_exceptions", "is no std::exception",
     when_refused([](auto&) -> registration { throw 1; })},
    {"refusals_are_exceptions", "wraps round the address space was registered",
     when_refused([](faulty& d) { return register_something_else(d); })},
    {"refusals_change_nothing", "closing the device gave ROVA_ERROR_IN_USE",
     when_refused([](faulty& d) -> registration {
         register_something_else(d);
         refuse(ROVA_ERROR_DRIVER);
     })},
    {"deregistering_ends", "an ended registration again gave ROVA_SUCCESS",
     [](faulty& d) { d.m_deregister = [](auto*) { return ROVA_SUCCESS; }; }},
    {"deregistering_ends", "a live registration gave ROVA_ERROR_DRIVER",
     [](faulty& d) { d.m_deregister = [](auto*) { return ROVA_ERROR_DRIVER; }; }},
    {"unknown_handles_are_refused", "the process",
     [](faulty& d) {
         d.m_deregister = [](auto* umem) {
             return static_cast<rova_error_t>(*reinterpret_cast<volatile char*>(umem));
         };
     }},
    {"dmabuf_stays_the_callers", "the descriptor was closed",
     [](faulty& d) { d.m_closes_descriptors = true; }},
    {"memory_is_reached_by_id", "the last byte was not read",
     [](faulty& d) { d.m_read = [](auto...) { return ROVA_SUCCESS; }; }},
    {"nothing_else_is_reached", "2 bytes were read at",
     [](faulty& d) { d.m_read = [](auto...) { return ROVA_SUCCESS; }; }},
    {"export_gives_a_block", "is empty",
     [](faulty& d) { d.m_export = [](auto*) { return bytes(); }; }},
    {"no_handle_is_not_exported", "the null handle gave a block",
     [](faulty& d) { d.m_export = [](auto*) { return bytes(block_size); }; }},
    {"import_makes_a_registration", "two imports of one block share",
     [](faulty& d) {
         d.m_import = [made = registration(), &d](auto... args) mutable {
             return made.first == nullptr ? made = d.m_real->import_umem(args...) : made;
         };
     }},
    {"imports_reach_the_same_memory", "does not read the memory",
     [](faulty& d) { d.m_import = [&d](auto...) { return register_something_else(d); }; }},
    {"wrong_sizes_are_refused", "the process",
     [](faulty& d) {
         d.m_import = [&d](const uint8_t* block, size_t length) {
             d.m_sum = std::accumulate(block, block + (length != 0 ? block_size : 0), 0U);
             return d.m_real->import_umem(block, length);
         };
     }},
    {"wrong_sizes_are_refused", "a block of 49 bytes instead of 48 was imported",
     [](faulty& d) {
         d.m_import = [&d](const uint8_t* block, size_t length) {
             return d.m_real->import_umem(block, std::min(length, block_size));
         };
     }},
    {"wrong_sizes_are_refused", "refused with ROVA_ERROR_DRIVER",
     when_block_refused([]() -> registration { refuse(ROVA_ERROR_DRIVER); })},
    {"damaged_blocks_are_harmless", "the process was ended by signal 9",
     when_block_refused([] { return registration(nullptr, std::raise(SIGKILL)); })},
    {"damaged_blocks_are_harmless", "within 1 seconds",
     when_block_refused([] { return registration(nullptr, ::pause()); }), 1},
    {"damaged_blocks_are_harmless", "is no rova::exception: spoilt",
     when_block_refused([]() -> registration { throw std::runtime_error("spoilt"); })},
    {"release_spends_the_handle", "a released handle gave ROVA_SUCCESS",
     [](faulty& d) { d.m_release = [](auto*) {}; }},
    {"release_does_not_end", "not to be read any more",
     [](faulty& d) { d.m_release = [&d](auto* umem) { d.m_real->deregister_umem(umem); }; }},
    {"regions_live_their_lives", "priv_rova_umem_release gave ROVA_ERROR_NOT_SUPPORTED",
     [](faulty& d) { d.m_release = [](auto*) { refuse(ROVA_ERROR_NOT_SUPPORTED); }; }},
    {"codes_of_refusals_arrive", "the caller got ROVA_ERROR_UNEXPECTED",
     when_refused([code = int{ROVA_ERROR_DRIVER}](auto&) mutable -> registration {
         refuse(static_cast<rova_error_t>(code++));
     })},
    {"threads_do_not_meet", "was refused: ROVA_ERROR_NOT_PERMITTED",
     [](faulty& d) {
         d.m_register = [&d, known = std::this_thread::get_id()](auto... args) {
             if (std::this_thread::get_id() != known) {
                 refuse(ROVA_ERROR_NOT_PERMITTED);
             }
             return d.m_real->register_umem(args...);
         };
     }},
};

class conformance : public testing::Test {
protected:
    // What the checks provoke is not for the eyes of whoever runs the tests.
    conformance() { rova_soft_log_set_level(ROVA_LOG_LEVEL_DISABLE); }
    ~conformance() override { rova_soft_log_set_level(ROVA_LOG_LEVEL_WARNING); }
};

TEST_F(conformance, the_software_platform_passes)
{
    std::ostringstream text;
    EXPECT_EQ(report(run(layer_of([](auto&) {})), text), 0U) << text.str();
    EXPECT_EQ(text.str().find("skipped "), std::string::npos) << text.str();
}

TEST_F(conformance, every_check_finds_a_fault)
{
    std::set<std::string> found;
    for (const row& each : rows) {
        const auto results = run(layer_of(each.spoil), {each.check, true, each.timeout_s});
        ASSERT_EQ(results.size(), 1U);
        EXPECT_EQ(results[0].verdict, outcome::failed) << each.check << ": " << each.seen;
        EXPECT_NE(results[0].seen.find(each.seen), std::string::npos) << results[0].seen;
        std::ostringstream text;
        EXPECT_EQ(report(results, text), 1U);
        found.insert(each.check);
    }
    for (const auto& each : run(layer_of([](auto&) {}))) {
        EXPECT_EQ(found.count(each.name), 1U) << each.name;
    }
}

TEST_F(conformance, checks_of_memory_are_skipped_where_it_is_out_of_reach)
{
    device_layer layer = layer_of([](auto&) {});
    layer.write = nullptr;
    const auto results = run(layer, {"memory_is_reached_by_id", false});
    EXPECT_EQ(results.at(0).verdict, outcome::skipped);
    EXPECT_THROW(run(layer, {"no_such_check"}), std::invalid_argument);
    EXPECT_THROW(run(device_layer()), std::invalid_argument);
}

}  // namespace
