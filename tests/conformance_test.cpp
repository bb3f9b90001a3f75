// The conformance checks: the software platform passes them, and a layer with one fault does not.

#include "rova_conformance.hpp"

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <set>
#include <sstream>

#include "priv_rova_exception_converter.h"
#include "priv_rova_log.h"
#include "priv_rova_page_size.h"
#include "support/soft_device.hpp"

namespace {

using rova::conformance::device_layer;
using rova::conformance::outcome;
using rova::conformance::result;
using support::read_write;
using entry = support::registration;

const char* fault = "";
void* lost_memory = nullptr;
const int waits =
    ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);  // written by a child that waits for ever

// What each thread has done. In a check with threads each has registrations of its own.
thread_local pid_t exporting_process = 0;
thread_local std::set<std::vector<uint8_t>> exported;
thread_local size_t block_size = 0;
thread_local std::pair<void*, size_t> last_range;
thread_local uint32_t last_flags = 0;
thread_local std::set<tlox_umem*> given;
thread_local std::set<uint32_t> imported;
thread_local std::vector<std::shared_ptr<device_abstraction::itlox_adapter>> kept;

bool is(const char* name)
{
    return std::strcmp(fault, name) == 0;
}

/** The function that this program's function of the same name replaces. */
template <class function>
function* real(const char* name)
{
    return reinterpret_cast<function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

const char* rova_error_get_name(rova_error_t code)
{
    return is("nameless codes") ? nullptr
                                : real<decltype(rova_error_get_name)>("rova_error_get_name")(code);
}

size_t priv_rova_get_page_size(void)
{
    const size_t size = real<decltype(priv_rova_get_page_size)>("priv_rova_get_page_size")();
    return is("small pages") ? 64 : size;
}

/** The time limit of a check, which must not pass before the check has come to its fault. */
int poll(pollfd* files, nfds_t count, int timeout)
{
    auto* const real_poll = real<decltype(poll)>("poll");
    if (is("waits for ever")) {
        pollfd ended_or_waits[] = {files[0], {waits, POLLIN, 0}};
        real_poll(ended_or_waits, 2, -1);
        eventfd_t value = 0;
        ::eventfd_read(waits, &value);
        fault = "";  // in this process, which waits once
    }
    return real_poll(files, count, timeout);
}

int priv_rova_log_get_header_source(void)
{
    return is("headers log as 0") ? 0 : 1;
}

rova_error_t rova_log_register_source(const char* name, int* source)
{
    const rova_error_t code =
        real<decltype(rova_log_register_source)>("rova_log_register_source")(name, source);
    *source = is("source 0") ? 0 : *source;
    return code;
}

rova_error_t priv_rova_exception_to_rova_error_imp(const char* file, int line, const char* function,
                                                   const char* message, bool flag)
try {
    throw;
} catch (const std::bad_alloc&) {
    return is("no memory is unexpected") ? ROVA_ERROR_UNEXPECTED : ROVA_ERROR_NO_MEMORY;
} catch (const rova::exception& e) {
    if (is("needs a place") && e.location().file == nullptr) {
        ::raise(SIGSEGV);
    }
    constexpr auto name = "priv_rova_exception_to_rova_error_imp";
    const rova_error_t code = real<decltype(priv_rova_exception_to_rova_error_imp)>(name)(
        file, line, function, message, flag);
    const bool lost = (is("drivers fail as unknown") && code == ROVA_ERROR_DRIVER) ||
                      (is("invalid is unknown") && code == ROVA_ERROR_INVALID_VALUE);
    return lost ? ROVA_ERROR_UNKNOWN : code;
} catch (...) {
    return is("others succeed") ? ROVA_SUCCESS : ROVA_ERROR_UNEXPECTED;
}

// Replaces the leak sanitizer, if the program is built without one.
#if defined(__has_feature)
#define HAS_LEAK_SANITIZER __has_feature(address_sanitizer)
#elif defined(__SANITIZE_ADDRESS__)
#define HAS_LEAK_SANITIZER 1
#else
#define HAS_LEAK_SANITIZER 0
#endif
#if !HAS_LEAK_SANITIZER
extern "C" int leak_check(void) __asm__("__lsan_do_recoverable_leak_check");
extern "C" int leak_check(void)
{
    return lost_memory != nullptr ? 1 : 0;
}
#endif

namespace {

/** The adapter of a software device with the fault. */
struct spoilt final : device_abstraction::idevice_adapter, device_abstraction::itlox_adapter {
    explicit spoilt(rova_dev dev) : m_soft(std::move(dev)) {}
    static spoilt& of(rova_dev* dev) { return static_cast<spoilt&>(*dev->device_adapter); }

    // Shares the count of the real one, so that it shows if the platform keeps it.
    std::shared_ptr<itlox_adapter> get_tlox_adapter() noexcept override
    {
        return is("no adapter") ? nullptr : std::shared_ptr<itlox_adapter>(m_real, this);
    }

    entry register_umem(void* address, size_t size, uint32_t flags, size_t page_size) override
    {
        last_range = {address, size};
        last_flags = flags;
        if (is("null handle")) {
            return {nullptr, 1};
        }
        if (is("takes what wraps") && reinterpret_cast<uintptr_t>(address) > UINTPTR_MAX - size) {
            return m_real->register_umem(m_own, sizeof(m_own), flags, page_size);
        }
        if (is("leaks a descriptor")) {
            [[maybe_unused]] const int leaked = ::dup(0);
        }
        if (is("keeps the adapter")) {
            kept.push_back(m_real);
        }
        if (is("rights ignored") && flags != 0 && flags < read_write) {
            flags = read_write;
        }
        try {
            const entry made = m_real->register_umem(address, size, flags, page_size);
            given.insert(made.first);
            return {made.first, is("one id") ? 7 : made.second};
        } catch (const rova::exception& e) {
            if (is("ends another") && !given.empty()) {
                m_real->deregister_umem(*given.begin());
            }
            throw rova::exception(is("refusal of SUCCESS") ? ROVA_SUCCESS : e.error_code(),
                                  e.what(), e.location());
        }
    }

    entry register_umem_dmabuf(int fd, void* address, size_t offset, size_t size, uint32_t flags,
                               size_t page_size) override
    {
        const entry made = m_real->register_umem_dmabuf(fd, address, is("offset 0") ? 0 : offset,
                                                        size, flags, page_size);
        if (is("closes the dma-buf")) {
            ::close(fd);
        }
        return made;
    }

    rova_error_t deregister_umem(tlox_umem* umem) noexcept override
    {
        if (is("ends nothing")) {
            return ROVA_SUCCESS;
        }
        if (is("loses memory")) {
            lost_memory = std::make_unique<int>().release();
        }
        const bool known = given.count(umem) != 0;
        const rova_error_t code = m_real->deregister_umem(umem);
        return is(known ? "ends twice" : "ends strangers") ? ROVA_SUCCESS : code;
    }

    std::vector<uint8_t> export_umem(tlox_umem* umem) override
    try {
        exporting_process = ::getpid();
        const auto block =
            is("exports nothing") ? std::vector<uint8_t>() : m_real->export_umem(umem);
        exported.insert(block);
        block_size = block.size();
        return block;
    } catch (const rova::exception& e) {
        throw rova::exception(is("dead export of SUCCESS") ? ROVA_SUCCESS : e.error_code(),
                              e.what(), e.location());
    }

    entry import_umem(const uint8_t* block, size_t size) override
    {
        const bool elsewhere = exporting_process != ::getpid();
        const bool intact = exported.count({block, block + size}) != 0;
        const bool damaged = !intact && size == block_size;
        if (is("other lengths without a code") && !elsewhere && size != block_size) {
            throw std::runtime_error("block size");
        }
        if (is("waits for ever") && damaged) {
            ::eventfd_write(waits, 1);
            ::pause();
        }
        if (is("crashes elsewhere") && elsewhere) {
            ::raise(SIGSEGV);
        }
        if (is("stays in its process") && elsewhere) {
            throw rova::exception(ROVA_ERROR_NOT_FOUND, "not exported here", ROVA_HERE);
        }
        if (is("grants all to the damaged") && damaged) {
            return m_real->register_umem(last_range.first, last_range.second, read_write, 1);
        }
        if (is("imports a copy") && intact) {
            return m_real->register_umem(m_own, sizeof(m_own), read_write, 1);
        }
        if (is("outlives its exporter") && intact) {
            return m_real->register_umem(last_range.first, last_range.second, last_flags, 1);
        }
        const size_t seen = is("ignores lengths") && !elsewhere ? block_size : size;
        const entry made = m_real->import_umem(block, seen);
        imported.insert(made.second);
        return {made.first, is("one import id") ? 7 : made.second};
    }

    void release_umem(tlox_umem* umem) override
    {
        const bool known = given.erase(umem) != 0;
        if (is("release ends") && known) {
            m_real->deregister_umem(umem);
        } else if (!is("keeps what is released") || !known) {
            m_real->release_umem(umem);
        }
    }

    char m_own[4096] = {};
    rova_dev m_soft;
    std::shared_ptr<itlox_adapter> m_real = m_soft.device_adapter->get_tlox_adapter();
};

rova_dev* open_spoilt()
{
    rova_dev* dev = nullptr;
    rova_soft_dev_open(&dev);
    dev->device_adapter = std::make_shared<spoilt>(*dev);
    return dev;
}

rova_error_t close_spoilt(rova_dev* dev)
{
    const rova_dev soft = spoilt::of(dev).m_soft;
    *dev = soft;
    if (is("writes at its close") && last_range.second > size_t{1} << 20) {
        std::memset(last_range.first, 1, 1);
    }
    const rova_error_t code = rova_platform_dev_close(dev);
    return is("close fails") ? ROVA_ERROR_IN_USE : code;
}

rova_error_t read_spoilt(rova_dev* dev, uint32_t id, uint64_t offset, void* data, size_t size)
{
    const uint64_t from = is("reads the first byte") ? 0 : offset;
    const rova_error_t code = rova_platform_dev_read(&spoilt::of(dev).m_soft, id, from, data, size);
    const bool ignored = (is("reads past the end") && code == ROVA_ERROR_INVALID_VALUE) ||
                         (is("reads what came later") && size > 4096) ||
                         (is("outlives its process") && code == ROVA_ERROR_NOT_FOUND);
    return ignored ? ROVA_SUCCESS : code;
}

rova_error_t write_spoilt(rova_dev* dev, uint32_t id, uint64_t offset, const void* data,
                          size_t size)
{
    const rova_error_t code =
        rova_platform_dev_write(&spoilt::of(dev).m_soft, id, offset, data, size);
    if (is("imports are written") && code == ROVA_ERROR_NOT_PERMITTED && imported.count(id) != 0) {
        std::memcpy(last_range.first, data, size);
        return ROVA_SUCCESS;
    }
    return code;
}

device_layer spoilt_platform()
{
    device_layer layer;
    layer.open = open_spoilt;
    layer.close = close_spoilt;
    layer.access_flags = read_write;
    layer.read_only_flags = ROVA_PLATFORM_ACCESS_READ;
    layer.write_only_flags = ROVA_PLATFORM_ACCESS_WRITE;
    layer.reaches_other_processes = true;
    layer.read = read_spoilt;
    layer.write = write_spoilt;
    return layer;
}

/** Signal handling that a program may have set before it runs the checks. */
class hostile_signals {
public:
    hostile_signals()
    {
        ::signal(SIGCHLD, SIG_IGN);
        ::sigaddset(&m_alarm, SIGALRM);
        ::sigprocmask(SIG_BLOCK, &m_alarm, nullptr);
    }
    ~hostile_signals()
    {
        EXPECT_EQ(::signal(SIGCHLD, SIG_DFL), SIG_IGN) << "not put back";
        ::sigprocmask(SIG_UNBLOCK, &m_alarm, nullptr);
    }

private:
    sigset_t m_alarm = {};
};

class conformance : public testing::Test {
protected:
    conformance() { rova_platform_log_set_level(ROVA_LOG_LEVEL_DISABLE); }
    ~conformance() override { fault = ""; }

    /** The report, and the names of the checks that failed. */
    static std::pair<std::string, std::string> run(const device_layer& layer,
                                                   const rova::conformance::options& how = {})
    {
        std::string failed;
        const auto results = rova::conformance::run(layer, how);
        for (const result& each : results) {
            failed += each.ended == outcome::failed ? each.name + ' ' : "";
        }
        std::ostringstream text;
        rova::conformance::report(results, text);
        return {text.str(), failed};
    }

    const hostile_signals m_signals;
};

TEST_F(conformance, the_software_platform_passes_and_what_a_layer_does_not_offer_is_skipped)
{
    device_layer layer = spoilt_platform();
    support::expect_match(run(layer).first, " passed, 0 failed, 0 blocked, 0 skipped\n");
    layer.write = nullptr;
    layer.reaches_other_processes = false;
    fault = "stays in its process";
    support::expect_match(run(layer).first, " 0 failed, 0 blocked, 9 skipped\n");
    support::expect_match(run(layer, {"other_processes_import", false}).first, "1 skipped\n");
    EXPECT_THROW(run(layer, {"no_such_check"}), std::invalid_argument);
}

/** A fault, the check that it fails, and what that says. */
using fault_row = std::array<const char*, 3>;

/** A test each, so that they can be run at the same time. */
struct fault_group {
    const char* name;
    std::vector<fault_row> rows;
};

const fault_group groups[] = {
    {"services",
     {
         {"nameless codes", "error_codes_have_names", "the name of code 0 is NULL"},
         {"small pages", "page_size_is_the_systems", "gave 64 instead of"},
         {"source 0", "log_sources_are_not_zero", "register_source gave the number 0"},
         {"headers log as 0", "log_sources_are_not_zero", "header_source gave 0"},
         {"drivers fail as unknown", "exceptions_become_their_codes", "became ROVA_ERROR_UNKNOWN"},
         {"no memory is unexpected", "exceptions_become_their_codes", "bad_alloc became *UNEXPECT"},
         {"needs a place", "exceptions_become_their_codes", "from an unknown place"},
         {"others succeed", "exceptions_become_their_codes", "runtime_error became ROVA_SUCCESS"},
     }},
    {"registration",
     {
         {"no adapter", "adapter_is_there", "get_tlox_adapter gave null"},
         {"close fails", "adapter_is_there", "closing the device gave ROVA_ERROR_IN_USE"},
         {"null handle", "registering_gives_a_handle", "returned a null handle"},
         {"loses memory", "registering_gives_a_handle", "memory was lost"},
         {"ends nothing", "registering_gives_a_handle",
          "closing the device gave ROVA_ERROR_IN_USE"},
         {"ends twice", "deregistering_ends", "an ended registration again gave ROVA_SUCCESS"},
         {"ends strangers", "unknown_handles_are_refused", "the null handle gave ROVA_SUCCESS"},
         {"one id", "ids_are_unique", "have the id 7"},
         {"refusal of SUCCESS", "refusals_are_exceptions", "carries the code ROVA_SUCCESS"},
         {"takes what wraps", "refusals_are_exceptions", "round the address space was registered"},
         {"ends another", "refusals_change_nothing", ""},
     }},
    {"memory",
     {
         {"reads the first byte", "memory_is_reached_by_id", "the last byte was not read"},
         {"reads past the end", "nothing_else_is_reached", "2 bytes were read at 4095 of 4096"},
         {"rights ignored", "rights_are_enforced", "memory for only reading could be written"},
         {"closes the dma-buf", "dmabuf_stays_the_callers", "the descriptor was closed"},
         {"offset 0", "dmabuf_offset_counts", "the byte at the offset was not read"},
     }},
    {"export",
     {
         {"exports nothing", "export_gives_a_block", "is empty"},
         {"dead export of SUCCESS", "dead_handles_are_not_exported", "with the code ROVA_SUCCESS"},
         {"keeps what is released", "release_spends_the_handle", "handle gave ROVA_SUCCESS"},
         {"release ends", "release_does_not_end", "could not be read any more"},
         {"one import id", "import_makes_a_registration", "share a handle or an id"},
         {"other lengths without a code", "wrong_sizes_are_refused",
          "a block of 0 bytes * by std::runtime_error (\"block size\") without a code"},
         {"ignores lengths", "wrong_sizes_are_refused",
          "the process * while importing a block of "},
         {"grants all to the damaged", "damaged_blocks_are_harmless", "gave write access"},
     }},
    {"sharing",
     {
         {"imports a copy", "imports_reach_the_same_memory", "does not read the memory"},
         {"imports are written", "imports_keep_the_rights", "an import of read-only memory"},
         {"outlives its exporter", "imports_end_with_the_exporter", "could be read after"},
         {"reads what came later", "running_transfers_end_with_the_exporter", "after the end"},
         {"writes at its close", "running_transfers_end_with_the_exporter",
          "after it had returned"},
         {"crashes elsewhere", "other_processes_import",
          "in the second process: the process * while importing a block"},
         {"stays in its process", "other_processes_import", "refused by ROVA_ERROR_NOT_FOUND"},
         {"keeps the adapter", "adapter_is_given_back", "the adapter's use count was"},
         {"leaks a descriptor", "descriptors_are_given_back", "64 more file descriptors are open"},
     }},
};

struct conformance_fault : conformance, testing::WithParamInterface<fault_group> {};

INSTANTIATE_TEST_SUITE_P(all, conformance_fault, testing::ValuesIn(groups),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(conformance_fault, fails_one_check_which_says_what_it_saw)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "takes more than a minute, and starts no thread that other tests do not";
#endif
    for (const auto& [name, check, seen] : GetParam().rows) {
        fault = name;
        const auto [text, failed] = run(spoilt_platform());
        EXPECT_EQ(failed, check + std::string(" ")) << name;
        support::expect_match(text, "FAILED  " + std::string(check) + ": *" + seen);
        support::expect_match(text, "; look at " + std::string(check) + " first");
    }
}

TEST_F(conformance, a_check_asked_for_by_name_is_run_whatever_it_builds_on)
{
    const char* const rows[][3] = {
        {"one id", "threads_do_not_interfere", "two threads have a live registration"},
        {"exports nothing", "regions_live_their_lives", "priv_rova_umem_export gave"},
        {"invalid is unknown", "refusal_codes_reach_the_caller", "the caller got ROVA_ERROR_UNKN"},
        {"outlives its process", "imports_end_with_the_process", "could be read after"},
        {"waits for ever", "damaged_blocks_are_harmless",
         "did not come to an end within 1 seconds; it was importing a block of "},
    };
    for (const auto& [name, check, seen] : rows) {
        fault = name;
        const auto [text, failed] =
            run(spoilt_platform(), {check, true, is("waits for ever") ? 1U : 120U});
        EXPECT_EQ(failed, check + std::string(" ")) << name << '\n' << text;
        support::expect_match(text, seen);
    }
}

}  // namespace
