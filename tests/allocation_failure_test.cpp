/*
 * Every operation of the component with every one of its allocations failing: once, and from then
 * on. A failed try says that memory ran out and leaves everything as it was; a try that reports
 * success has done what it would have done undisturbed.
 */
#include "support/allocation_failure.hpp"

#include <dlfcn.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <functional>

#include "priv_rova_umem_api.h"
#include "rova_soft_platform.h"
#include "rova_umem.h"
#include "support/export_helpers.hpp"
#include "support/scripted_device.hpp"
#include "support/scripted_sub_devices.hpp"

namespace {

using support::allocation_trap;
using support::failing;
using bytes = std::vector<uint8_t>;

/** What becomes of an operation. */
enum outcome {
    done,
    no_memory,
    wrong,    // a wrong result, a wrong code, or something changed that was not asked for
    damaged,  // the same operation does not succeed afterwards
    leaked,
    leaked_in_json_c,
    crashed,
    outcomes
};

struct operation {
    const char* name;
    std::function<outcome(allocation_trap&)> run;
    // Each time, for each way of failing, json-c 0.16 itself forgets what it was about to add to a
    // container when the adding fails: the copy of the name, and when it parses the value, too.
    int json_c_leaks = 0;
    // It also crashes on a name that it could not copy, unless it is kept from going on.
    bool parses = false;
};

outcome run_once(const operation& tested, allocation_trap& trap)
{
    const ptrdiff_t live = support::live_allocations();
    const outcome result = tested.run(trap);
    if (support::live_allocations() != live) {
        return trap.struck_json_c() ? leaked_in_json_c : leaked;
    }
    allocation_trap none(0);
    return tested.run(none) == done ? result : damaged;
}

/** The same in a child, whose end does not end the test. */
outcome run_in_child(const operation& tested, allocation_trap& trap, bool& struck)
{
    constexpr int struck_flag = 1 << 4;
    const pid_t child = fork();
    if (child == 0) {
        const outcome result = run_once(tested, trap);
        _exit(result | (trap.struck() ? struck_flag : 0));
    }
    int status = 0;
    waitpid(child, &status, 0);
    struck = WIFSIGNALED(status) || (WEXITSTATUS(status) & struck_flag) != 0;
    return WIFSIGNALED(status) ? crashed : static_cast<outcome>(WEXITSTATUS(status) & ~struck_flag);
}

void sweep(const operation& tested)
{
    allocation_trap none(0);
    ASSERT_EQ(tested.run(none), done) << tested.name << ", which may fill caches";
    for (const failing mode : {failing::once, failing::from_then_on}) {
        SCOPED_TRACE(tested.name + std::string(mode == failing::once ? " once" : " from then on"));
        int count[outcomes] = {};
        bool struck = true;
        for (size_t n = 1; struck; ++n) {
            allocation_trap trap(n, mode);
            outcome result = done;
            if (tested.parses) {
                result = run_in_child(tested, trap, struck);
            } else {
                result = run_once(tested, trap);
                struck = trap.struck();
            }
            ++count[result];
            EXPECT_TRUE(result == done || result == no_memory || result == leaked_in_json_c)
                << "outcome " << result << " when allocation " << n << " fails";
        }
        EXPECT_TRUE(count[no_memory] > 0 || mode == failing::once);
        EXPECT_LE(count[leaked_in_json_c], tested.json_c_leaks);
    }
}

/** Runs a call under a trap; what it throws is to say that memory ran out. */
template <class callable>
outcome guarded(allocation_trap& trap, callable&& call)
{
    trap.arm();
    outcome result = wrong;
    try {
        call();
        result = done;
    } catch (const rova::exception& e) {
        result = e.error_code() == ROVA_ERROR_NO_MEMORY ? no_memory : wrong;
    } catch (const std::bad_alloc&) {
        result = no_memory;
    } catch (...) {
    }
    trap.disarm();
    return result;
}

outcome verdict(outcome result, bool as_before, bool whole)
{
    const bool right = result == done ? whole : as_before;
    return right ? result : wrong;
}

class memory : public testing::Test {
protected:
    void SetUp() override
    {
        if (!support::allocations_can_fail) {
            GTEST_SKIP() << "a sanitizer owns the allocator";
        }
        // The log goes through all that it does, to nobody.
        rova_soft_log_set_sink([](const rova_soft_log_record*, void*) {}, nullptr);
        rova_soft_log_set_level(ROVA_LOG_LEVEL_TRACE);
        m_layers.m_apx_dev = &m_device;
        m_device->m_block = bytes(200, 7);
    }

    /** One creation, and the end of what it created. */
    template <class region_type, class creation>
    outcome create(allocation_trap& trap, rova_error_t (*destroy)(region_type*),
                   const creation& call)
    {
        region_type* const untouched = reinterpret_cast<region_type*>(this);
        region_type* region = untouched;
        const size_t live = m_device->live();
        trap.arm();
        const rova_error_t code = call(&region);
        trap.disarm();
        const bool as_before =
            code == ROVA_SUCCESS ? destroy(region) == ROVA_SUCCESS : region == untouched;
        m_device->take_calls();
        if (!as_before || m_device->live() != live) {
            return wrong;
        }
        return code == ROVA_SUCCESS ? done : code == ROVA_ERROR_NO_MEMORY ? no_memory : wrong;
    }

    void sweep_creation(const char* name, const std::function<rova_error_t(priv_rova_umem**)>& call)
    {
        sweep({name,
               [&](allocation_trap& trap) { return create(trap, &priv_rova_umem_destroy, call); }});
    }

    /** The first export of a new region; once more when it fails, which is to succeed then. */
    outcome exported(allocation_trap& trap, bytes& descriptor)
    {
        priv_rova_umem* region = nullptr;
        EXPECT_EQ(priv_rova_umem_create(&m_device, this, 1 << 20, 5, &region), ROVA_SUCCESS);
        void* first = this;
        size_t length = 0;
        trap.arm();
        rova_error_t code = priv_rova_umem_export(region, &first, &length);
        trap.disarm();
        outcome result = done;
        if (code != ROVA_SUCCESS) {
            const bool as_before = first == this && length == 0;
            result = code == ROVA_ERROR_NO_MEMORY && as_before ? no_memory : wrong;
            code = priv_rova_umem_export(region, &first, &length);
        }
        const auto* const begin = static_cast<const uint8_t*>(first);
        descriptor.assign(begin, begin + length);
        priv_rova_umem_destroy(region);
        m_device->take_calls();
        return code == ROVA_SUCCESS ? result : damaged;
    }

    support::scripted_layers m_layers;
    support::scripted_device m_device;
};

TEST_F(memory, may_run_out_in_every_create_function)
{
    rova_dev* const dev = &m_device;
    rova_gpu* const gpu = m_layers.gpu();
    rova_apx* const apx = m_layers.apx();
    sweep_creation("create",
                   [=](auto** out) { return priv_rova_umem_create(dev, this, 64, 1, out); });
    sweep_creation("create_pg_sz", [=](auto** out) {
        return priv_rova_umem_create_pg_sz(dev, this, 64, 8, 1, out);
    });
    sweep_creation("create_dmabuf", [=](auto** out) {
        return priv_rova_umem_create_dmabuf(dev, this, 0, 64, 8, 3, 1, out);
    });
    sweep_creation("gpu_create", [=](auto** out) {
        return priv_rova_umem_gpu_create(gpu, dev, this, 64, 1, out);
    });
    sweep_creation("apx_create",
                   [=](auto** out) { return priv_rova_umem_apx_create(apx, 0, 64, 1, out); });
    sweep({"rova_umem_create", [&](allocation_trap& trap) {
               return create(trap, &rova_umem_destroy, [=](rova_umem** out) {
                   return rova_umem_create(dev, this, 64, 1, out);
               });
           }});
    sweep({"rova_umem_gpu_create", [&](allocation_trap& trap) {
               return create(trap, &rova_umem_destroy, [=](rova_umem** out) {
                   return rova_umem_gpu_create(gpu, dev, this, 64, 1, out);
               });
           }});
}

TEST_F(memory, may_run_out_in_the_first_export_and_in_the_import)
{
    allocation_trap none(0);
    bytes wanted;
    ASSERT_EQ(exported(none, wanted), done);
    sweep({"export", [&](allocation_trap& trap) {
               bytes descriptor;
               const outcome result = exported(trap, descriptor);
               return descriptor == wanted ? result : wrong;
           }});
    sweep({"import",
           [&](allocation_trap& trap) {
               m_device->m_imported.clear();
               const auto import = [&](priv_rova_umem** out) {
                   return priv_rova_umem_create_from_export(&m_device, wanted.data(), wanted.size(),
                                                            this, out);
               };
               const outcome result = create(trap, &priv_rova_umem_destroy, import);
               const bool whole = m_device->m_imported == m_device->m_block;
               return result == done && !whole ? wrong : result;
           },
           12, true});
}

/** A text in which all that can grow in json-c has to: numbers, texts, names and containers. */
std::string long_text()
{
    std::string text = R"({"long":[0.5,1],"list":[0)";
    for (int i = 1; i < 70; ++i) {
        text += "," + std::to_string(i * 1000);
    }
    text += "],\"" + std::string(100, 'k') + "\":[1,\"" + std::string(100, 's') + "\",2";
    for (char key = 'a'; key < 'a' + 12; ++key) {
        text += ",{\"" + std::string(40, key) + "\":\"" + std::string(90, key) + "\"}";
    }
    text += "],\"object\":{\"\":null";
    for (int i = 0; i < 12; ++i) {
        text += ",\"" + std::to_string(i) + "\":true";
    }
    return text + "}}";
}

TEST_F(memory, may_run_out_in_the_framework)
{
    const field_ptr tree = parse(long_text());
    const std::string text = print(*tree);
    const std::string payload = long_text();
    core::priv_rova_exporter exporter;
    exporter["tree"] = core::export_proto(tree);
    const uint8_t* blob = nullptr;
    size_t length = 0;
    exporter.export_obj(&blob, &length);
    const bytes wanted(blob, blob + length);

    sweep({"serialize",
           [&](allocation_trap& trap) {
               core::json_c_serializer serializer;
               const uint8_t* printed = nullptr;
               uint32_t printed_length = 0;
               const outcome result = guarded(trap, [&] {
                   tree->accept(serializer);
                   serializer.serialize(&printed, &printed_length);
               });
               const std::string found(printed, printed + printed_length);
               return verdict(result, found.empty(), found.c_str() == text);
           },
           2});
    sweep({"export_obj",
           [&](allocation_trap& trap) {
               core::priv_rova_exporter fresh;
               fresh["tree"] = core::export_proto(tree);
               const uint8_t* first = nullptr;
               size_t found = 0;
               const outcome result = guarded(trap, [&] { fresh.export_obj(&first, &found); });
               return verdict(result, first == nullptr && found == 0,
                              bytes(first, first + found) == wanted);
           },
           2});
    sweep({"deserialize",
           [&](allocation_trap& trap) {
               core::json_c_serializer serializer;
               field_ptr found;
               const outcome result = guarded(trap, [&] {
                   core::export_field* const made =
                       serializer.deserialize(reinterpret_cast<const uint8_t*>(payload.c_str()),
                                              static_cast<uint32_t>(payload.size() + 1));
                   trap.disarm();
                   found.reset(made);
               });
               return verdict(result, found == nullptr, found != nullptr && print(*found) == text);
           },
           49, true});
    sweep({"importer",
           [&](allocation_trap& trap) {
               std::string found;
               const outcome result = guarded(trap, [&] {
                   const auto importer =
                       core::priv_rova_importer::import(wanted.data(), wanted.size());
                   trap.disarm();
                   found = print(*importer["tree"].begin());
               });
               return verdict(result, found.empty(), found == text);
           },
           51, true});
}

}  // namespace
