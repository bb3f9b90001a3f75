/*
 * Every operation of the component with every one of its allocations failing: once, and from then
 * on. A failed try reports that memory ran out and changes nothing; a try that reports success has
 * the same result as without a failure.
 */
#include "support/allocation_failure.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <map>
#include <memory>

#include "priv_rova_umem.hpp"
#include "priv_rova_umem_api.h"
#include "rova_umem.h"
#include "support/export_helpers.hpp"
#include "support/scripted_device.hpp"
#include "support/scripted_sub_devices.hpp"
#include "support/soft_device.hpp"

namespace {

using support::allocation_trap;
using support::failing;
using bytes = std::vector<uint8_t>;

/** The outcome of an operation. */
enum outcome {
    done,
    no_memory,
    wrong,    // a wrong result, a wrong code, or an unwanted change
    damaged,  // the same operation fails afterwards
    leaked,
    leaked_in_json_c,
    outcomes
};

using operation = std::function<outcome(allocation_trap&)>;

outcome run_once(const operation& run, allocation_trap& trap)
{
    const ptrdiff_t live = support::live_allocations();
    const outcome result = run(trap);
    if (support::live_allocations() != live) {
        return trap.struck_json_c() ? leaked_in_json_c : leaked;
    }
    allocation_trap none(0);
    return run(none) == done ? result : damaged;
}

/**
 * When adding to a container fails, json-c 0.16 leaks what it was about to add: the copy of the
 * name and, when parsing, the value. That happens once in each way of failing.
 */
void sweep(const std::string& name, const operation& run, int json_c_leaks = 0)
{
    allocation_trap none(0);
    ASSERT_EQ(run(none), done) << name << ", which may fill caches";
    const std::pair<failing, const char*> modes[] = {
        {failing::once, " once"},
        {failing::from_then_on, " from then on"},
        {failing::from_then_on_in_json_c, " from then on in json-c"},
    };
    for (const auto& [mode, how] : modes) {
        SCOPED_TRACE(name + how);
        int count[outcomes] = {};
        bool struck = true;
        for (size_t n = 1; struck; ++n) {
            allocation_trap trap(n, mode);
            const outcome result = run_once(run, trap);
            struck = trap.struck();
            ++count[result];
            EXPECT_TRUE(result == done || result == no_memory || result == leaked_in_json_c)
                << "outcome " << result << " when allocation " << n << " fails";
        }
        EXPECT_TRUE(count[no_memory] > 0 || mode != failing::from_then_on);
        EXPECT_LE(count[leaked_in_json_c], json_c_leaks);
    }
}

using message_counts = std::map<std::string, int>;

/** Runs a call under a trap. It may throw only bad_alloc and known messages. */
outcome guarded(allocation_trap& trap, message_counts& known, const std::function<void()>& call)
{
    trap.arm();
    try {
        call();
        trap.disarm();
        return done;
    } catch (const rova::exception& e) {
        trap.disarm();
        const auto message = known.find(e.message());
        if (message == known.end() || e.error_code() != ROVA_ERROR_NO_MEMORY) {
            return wrong;
        }
        ++message->second;
    } catch (const std::bad_alloc&) {
        trap.disarm();
    } catch (const std::logic_error&) {  // no text
        trap.disarm();
        return trap.struck_json_c() ? no_memory : wrong;
    }
    return no_memory;
}

outcome verdict(outcome result, bool as_before, bool whole)
{
    return (result == done ? whole : as_before) ? result : wrong;
}

class memory : public testing::Test {
protected:
    void SetUp() override
    {
        if (!support::allocations_can_fail) {
            GTEST_SKIP() << "a sanitizer owns the allocator";
        }
        // The log formats every record, and then drops it.
        rova_platform_log_set_sink([](const rova_platform_log_record*, void*) {}, nullptr);
        rova_platform_log_set_level(ROVA_LOG_LEVEL_TRACE);
        m_layers.m_apx_dev = &m_device;
        m_device->m_block = bytes(200, 7);
    }

    static rova_error_t destroy(priv_rova_umem* region) { return priv_rova_umem_destroy(region); }
    static rova_error_t destroy(rova_umem* region) { return rova_umem_destroy(region); }

    /** Runs a call that reports a code under a trap. */
    template <class callable>
    static outcome reported(allocation_trap& trap, const callable& call)
    {
        trap.arm();
        const rova_error_t code = call();
        trap.disarm();
        // There is no code of its own for json-c giving no text.
        const bool no_text = code == ROVA_ERROR_UNEXPECTED && trap.struck_json_c();
        return code == ROVA_SUCCESS                      ? done
               : code == ROVA_ERROR_NO_MEMORY || no_text ? no_memory
                                                         : wrong;
    }

    /** Creates a region and destroys it. */
    template <class region_type, class function, class... types>
    void sweep_create(const char* name, int json_c_leaks, function* call, types... arguments)
    {
        const auto untouched = reinterpret_cast<region_type*>(this);
        const auto create = [&](allocation_trap& trap) {
            region_type* region = untouched;
            const size_t live = m_device->live();
            m_device->m_imported.clear();
            const outcome result = reported(trap, [&] { return call(arguments..., &region); });
            const bool ended = result == done && destroy(region) == ROVA_SUCCESS;
            m_device->take_calls();
            const bool whole = ended && m_device->m_imported == m_to_import;
            return m_device->live() == live ? verdict(result, region == untouched, whole) : wrong;
        };
        sweep(name, create, json_c_leaks);
    }

    bytes m_to_import;  // the block that the device imports
    support::scripted_layers m_layers;
    support::scripted_device m_device;
};

TEST_F(memory, may_run_out_in_every_create_function)
{
    rova_dev* const dev = &m_device;
    void* const at = this;
    sweep_create<rova_umem>("create", 0, rova_umem_create, dev, at, 64U, 1U);
    sweep_create<rova_umem>("gpu_create", 0, rova_umem_gpu_create, m_layers.gpu(), dev, at, 64U,
                            1U);
    sweep_create<rova_umem>("apx_create", 0, rova_umem_apx_create, m_layers.apx(), 0U, 64U, 1U);
    sweep_create<priv_rova_umem>("pg_sz", 0, priv_rova_umem_create_pg_sz, dev, at, 64U, 8U, 1U);
    sweep_create<priv_rova_umem>("dmabuf", 0, priv_rova_umem_create_dmabuf, dev, at, 0U, 64U, 8U, 3,
                                 1U);
}

TEST_F(memory, may_run_out_in_the_first_export_and_in_the_import)
{
    bytes wanted;
    const auto export_it = [&](allocation_trap& trap) {
        priv_rova_umem region(m_device, this, 1 << 20, 5, 4096);
        void* first = this;
        size_t length = 0;
        const auto call = [&] { return priv_rova_umem_export(&region, &first, &length); };
        const outcome result = reported(trap, call);
        const bool as_before = first == this && length == 0;
        if (result != done && call() != ROVA_SUCCESS) {
            return damaged;
        }
        const auto* const begin = static_cast<const uint8_t*>(first);
        const bytes descriptor(begin, begin + length);
        wanted = wanted.empty() ? descriptor : wanted;
        m_device->take_calls();
        return descriptor == wanted ? verdict(result, as_before, true) : wrong;
    };
    sweep("export", export_it);
    m_to_import = m_device->m_block;
    rova_dev* const dev = &m_device;
    sweep_create<priv_rova_umem>("import", 12, priv_rova_umem_create_from_export, dev,
                                 wanted.data(), wanted.size(), this);
}

TEST_F(memory, may_run_out_in_the_software_device)
{
    const support::soft_device device;
    rova_dev* const dev = device.m_dev;
    void* const at = this;
    const int file = ::memfd_create("test", MFD_CLOEXEC);
    ASSERT_EQ(::ftruncate(file, 64), 0);
    const auto share = [&](allocation_trap& trap) {
        priv_rova_umem* regions[3] = {};
        void* first = nullptr;
        size_t length = 0, registered = 0, left = 1;
        const outcome result = reported(trap, [&] {
            rova_error_t code = priv_rova_umem_create_dmabuf(dev, at, 0, 64, 1, file, 3, regions);
            code = code ? code : priv_rova_umem_create_pg_sz(dev, at, 64, 1, 3, &regions[1]);
            code = code ? code : priv_rova_umem_export(regions[1], &first, &length);
            return code ? code
                        : priv_rova_umem_create_from_export(dev, first, length, at, &regions[2]);
        });
        rova_platform_dev_count_registrations(dev, &registered);
        for (priv_rova_umem* const region : regions) {
            registered -= region != nullptr && destroy(region) == ROVA_SUCCESS ? 1 : 0;
        }
        rova_platform_dev_count_registrations(dev, &left);
        return registered == 0 && left == 0 ? result : wrong;
    };
    sweep("share", share, 12);
    ::close(file);
}

/** A text that makes json-c grow everything it can: numbers, texts, names and containers. */
std::string long_text()
{
    std::string list = "[0.5";
    std::string object = "{\"\":null";
    for (int i = 0; i < 70; ++i) {
        list += "," + std::to_string(i * 1000);
    }
    for (char key = 'a'; key < 'a' + 12; ++key) {
        list += ",{\"" + std::string(40, key) + "\":\"" + std::string(90, key) + "\"}";
        object += std::string(",\"") + key + "\":true";
    }
    return "{\"list\":" + list + "],\"" + std::string(100, 'k') + "\":" + object + "}}";
}

TEST_F(memory, may_run_out_in_the_framework)
{
    const field_ptr tree = parse(long_text());
    tree->add("uint32", make<core::export_field_uint32>(7u));
    const std::string text = print(*tree);
    message_counts known, none;
    for (const char* function : {"array_add", "new_array", "new_boolean", "new_double", "new_int",
                                 "new_int64", "new_object", "new_string", "object_add"})
    {
        known["json_object_" + std::string(function) + " failed"] = 0;
    }
    const auto serialize = [&](allocation_trap& trap) {
        core::json_c_serializer serializer;
        const uint8_t* printed = nullptr;
        uint32_t length = 0;
        const outcome result = guarded(trap, known, [&] {
            tree->accept(serializer);
            serializer.serialize(&printed, &length);
        });
        const std::string found(printed, printed + length);
        return verdict(result, found.empty(), found.c_str() == text);
    };
    sweep("serialize", serialize, 2);
    for (const auto& [message, count] : known) {
        EXPECT_GT(count, 0) << message;
    }

    // The text, and texts with quotes that json-c does not read as a string's.
    const std::pair<std::string, int> texts[] = {
        {text, 49},
        {R"(/*"*/{"a":1})", 2},
        {R"(/*'*/{"aa":{"b":[1,'"']}/*"*/,"c\"}":-1.5,/*}*/"d":"e"})", 12},
    };
    for (const auto& [odd, json_c_leaks] : texts) {
        const std::string wanted = print(*parse(odd));
        const auto deserialize = [&, &written = odd](allocation_trap& trap) {
            std::string found;
            const outcome result = guarded(trap, none, [&] {
                const field_ptr made = parse(written);
                trap.disarm();
                found = print(*made);
            });
            return verdict(result, found.empty(), found == wanted);
        };
        sweep("deserialize " + odd.substr(0, 20), deserialize, json_c_leaks);
    }

    const std::string key(40, 'k');
    const auto assignment = [&](allocation_trap& trap) {
        const field_ptr object = make_object();
        core::export_proto proto(object);
        proto[key] = core::export_proto(1u);
        const std::string before = print(*object);
        const auto assign = [&] { proto[key] = core::export_proto{{"n", 2u}, {"m", 3u}}; };
        const outcome result = guarded(trap, none, assign);
        const std::string after = print(*object);
        return verdict(result, after == before, after == "{\"" + key + R"(":{"m":3,"n":2}})");
    };
    sweep("assignment", assignment);

    const auto nodes_of_bytes = [&](allocation_trap& trap) {
        core::export_proto proto = core::export_proto::from_bytes({1, 2, 3});
        const outcome result = guarded(trap, none, [&] { proto.begin(); });
        return verdict(result, true, true) == result && text_of(std::move(proto)) == "[1,2,3]"
                   ? result
                   : wrong;
    };
    sweep("nodes of bytes", nodes_of_bytes);
}

/** Takes at least `pieces` small pieces of memory, or until the heap had to grow elsewhere. */
int take_memory(int pieces)
{
    static std::vector<std::unique_ptr<char[]>> taken(1 << 20);
    static size_t next = 0;
    int count = 0;
    for (errno = 0; pieces != 0 ? count < pieces : errno == 0; ++count) {
        taken.at(next++) = std::make_unique<char[]>(2000);
    }
    return count;
}

/** The number of exports and imports that fail. Spoils the heap: run it in a child process. */
int failures_where_the_heap_cannot_grow(rova_dev* dev)
{
    const auto page = static_cast<uintptr_t>(::getpagesize());
    const uintptr_t behind = (reinterpret_cast<uintptr_t>(::sbrk(0)) + page - 1) / page * page;
    if (::mmap(reinterpret_cast<void*>(behind), page, PROT_NONE,
               MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0) == MAP_FAILED)
    {
        return 1;
    }
    int failures = 0;
    take_memory(0);
    const int between = take_memory(0);
    for (int left = 0; left < 200; ++left) {
        priv_rova_umem* exported = nullptr;
        priv_rova_umem* imported = nullptr;
        void* first = nullptr;
        size_t length = 0;
        failures += priv_rova_umem_create_pg_sz(dev, dev, 64, 1, 3, &exported) != ROVA_SUCCESS;
        take_memory(0);
        take_memory(between - left);
        failures += priv_rova_umem_export(exported, &first, &length) != ROVA_SUCCESS;
        take_memory(0);
        take_memory(between - left);
        failures += priv_rova_umem_create_from_export(dev, first, length, dev, &imported) != 0;
    }
    return failures;
}

TEST_F(memory, has_not_run_out_when_only_the_heap_cannot_grow)
{
    m_device->m_block = bytes(1024, 7);
    rova_dev* const dev = &m_device;
    EXPECT_EXIT(::_exit(failures_where_the_heap_cannot_grow(dev) != 0), testing::ExitedWithCode(0),
                "");
}

}  // namespace
