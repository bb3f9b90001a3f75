/*
 * The component: its calls compared with the device's, a descriptor with json-c alone, checksum and
 * scrambling with other loops.
 */
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <zlib.h>

#include "component.hpp"
#include "priv_rova_export_bytes.hpp"
#include "priv_rova_umem.hpp"
#include "programs.hpp"
#include "table.hpp"

namespace bench {
namespace {

constexpr int processes = 61;

side whole_export(size_t length)
{
    return [length](benchmark::State& state) {
        scripted_device device(length);
        for ([[maybe_unused]] const auto _ : state) {
            const region made = device.make_region();
            benchmark::DoNotOptimize(ask_for_descriptor(made.get()));
        }
    };
}

side whole_import(size_t length)
{
    return [length](benchmark::State& state) {
        scripted_device device(length);
        const auto descriptor = export_region(device.make_region().get());
        for ([[maybe_unused]] const auto _ : state) {
            benchmark::DoNotOptimize(device.import_region(descriptor).get());
        }
    };
}

side floor_export(size_t length)
{
    return repeat([block = device_block(length)] { return json_floor_export(block); });
}

side floor_import(size_t length)
{
    return repeat([text = descriptor_text(length)] { return json_floor_import(text); });
}

/** The number that one_operation prints. */
gauge in_process_of_its_own(const char* what, const char* side, const char* name, size_t length)
{
    return [=] {
        const std::string number =
            output_of("one_operation", {what, side, name, std::to_string(length)});
        return std::strtod(number.c_str(), nullptr);
    };
}

void register_and_deregister(benchmark::State& state)
{
    scripted_device device(1);
    char memory = 0;
    priv_rova_umem* region = nullptr;
    for ([[maybe_unused]] const auto _ : state) {
        benchmark::DoNotOptimize(
            priv_rova_umem_create_pg_sz(device.dev(), &memory, 1, 1, 0, &region));
        benchmark::DoNotOptimize(priv_rova_umem_destroy(region));
    }
}

/**
 * The adapter's two calls, each on the adapter that `adapter_of` gives, and memory for a region.
 */
template <typename adapter_function>
side adapter_calls(adapter_function adapter_of)
{
    return [adapter_of](benchmark::State& state) {
        struct alignas(priv_rova_umem) region_sized {
            char bytes[sizeof(priv_rova_umem)];
        };
        scripted_device device(1);
        char memory = 0;
        for ([[maybe_unused]] const auto _ : state) {
            const std::unique_ptr<region_sized> object(new region_sized);
            benchmark::DoNotOptimize(object.get());
            const auto made = adapter_of(device)->register_umem(&memory, 1, 0, 1);
            benchmark::DoNotOptimize(adapter_of(device)->deregister_umem(made.first));
        }
    };
}

/** Second and later exports, or a call that does nothing, through the same kind of pointer. */
side repeat_call(rova_error_t (*call)(priv_rova_umem*, void**, size_t*))
{
    return [call](benchmark::State& state) {
        scripted_device device(64);
        region region = device.make_region();
        ask_for_descriptor(region.get());
        auto callee = call;
        benchmark::DoNotOptimize(callee);
        void* bytes = nullptr;
        size_t length = 0;
        for ([[maybe_unused]] const auto _ : state) {
            benchmark::DoNotOptimize(callee(region.get(), &bytes, &length));
        }
    };
}

/** What peak_memory prints for an operation on blocks of a given length: two counts. */
class memory_counts {
public:
    struct counts {
        double allocations = 0;
        double peak = 0;
    };

    explicit memory_counts(const std::string& printed)
    {
        std::istringstream lines(printed);
        std::string operation;
        size_t length = 0;
        counts value;
        while (lines >> operation >> length >> value.allocations >> value.peak) {
            m_counts[{operation, length}] = value;
        }
    }

    const counts& of(const char* operation, size_t length) const
    {
        return m_counts.at({operation, length});
    }

private:
    std::map<std::pair<std::string, size_t>, counts> m_counts;
};

std::string twice_beside_once(const std::string& what, size_t length)
{
    return of_bytes(what, 2 * length) + " beside " + std::to_string(length);
}

void add_calls(table& rows)
{
    const auto kept = [](scripted_device& device) { return &device.adapter(); };
    const auto asked_for = [](scripted_device& device) {
        return device.dev()->device_adapter->get_tlox_adapter();
    };
    rows.compare("register and deregister", register_and_deregister,
                 "the adapter's calls, new, delete", adapter_calls(kept), 1.5);
    // An adapter may not be kept, so each call has to ask the device for it.
    rows.compare("register and deregister", register_and_deregister,
                 "those, adapter asked for each time", adapter_calls(asked_for), std::nullopt);
    rows.compare("second export", repeat_call(priv_rova_umem_export), "a call through a pointer",
                 repeat_call(do_nothing), 5);
}

void add_descriptors(table& rows)
{
    for (const size_t length : {64u, 512u, 4096u, 65536u}) {
        rows.compare(of_bytes("export", length), whole_export(length), "json-c alone",
                     floor_export(length), length < 512 ? 1.5 : 1.25);
        rows.compare(of_bytes("import", length), whole_import(length), "json-c alone",
                     floor_import(length), length < 512 ? 1.3 : 1.25);
    }
    for (const char* name : {"export", "import"}) {
        for (const size_t length : {64u, 512u, 4096u, 65536u}) {
            const double short_limit = name == std::string("export") ? 1.5 : 1.3;
            rows.compare(of_bytes(std::string("one ") + name, length),
                         in_process_of_its_own("time", "ours", name, length),
                         "json-c alone, new processes",
                         in_process_of_its_own("time", "floor", name, length), processes, "ns",
                         length < 512 ? short_limit : 1.25);
        }
    }
}

void add_bytes(table& rows)
{
    static std::vector<uint8_t> source = device_block(262144);
    static std::vector<uint8_t> target(source.size());
    for (const size_t length : {2048u, 262144u}) {
        const auto ours =
            repeat([length] { return priv_rova_utils_crc32_normal(source.data(), length); });
        const auto loop = repeat([length] {
            return priv_rova_utils_crc32(source.data(), length,
                                         priv_rova_utils_folding::polynomial);
        });
        const auto zlib =
            repeat([length] { return crc32(0, source.data(), static_cast<uInt>(length)); });
        rows.compare(of_bytes("checksum", length), ours, "the bit-by-bit loop", loop, 0.1);
        rows.compare(of_bytes("checksum", length), ours, "zlib's crc32", zlib, 1);
    }
    const auto scramble = repeat([] {
        priv_rova_utils_scramble_descramble(target.data(), source.data(), source.size(),
                                            core::scrambling_key);
        benchmark::ClobberMemory();
        return 0;
    });
    const auto copy = repeat([] {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::ClobberMemory();
        return 0;
    });
    rows.compare(of_bytes("scrambling", source.size()), scramble, "memcpy", copy, 2);
}

void add_growth(table& rows)
{
    for (const size_t length : {4096u, 65536u}) {
        rows.compare(twice_beside_once("export time", length), whole_export(2 * length),
                     "itself at N", whole_export(length), 2.2);
        rows.compare(twice_beside_once("import time", length), whole_import(2 * length),
                     "itself at N", whole_import(length), 2.2);
    }
    // With the default malloc, json-c's own time grows by more where its document becomes so large
    // that the heap is given back after each call.
    rows.compare(twice_beside_once("json-c alone, export time", 65536), floor_export(131072),
                 "itself at N", floor_export(65536), std::nullopt);
    rows.compare(twice_beside_once("json-c alone, import time", 65536), floor_import(131072),
                 "itself at N", floor_import(65536), std::nullopt);
}

void add_memory(table& rows, const memory_counts& memory)
{
    // The expected count is 0, so the ratio is to one allocation.
    const double again = memory.of("export_again", 512).allocations;
    rows.add({"second export, allocations", "one", "", again, 1, again, 0});
    for (const char* operation : {"export", "import"}) {
        for (const size_t length : {4096u, 65536u}) {
            const auto& once = memory.of(operation, length);
            const auto& twice = memory.of(operation, 2 * length);
            const auto& floor = memory.of(("floor_" + std::string(operation)).c_str(), length);
            const std::string name = operation;
            rows.add({of_bytes(name + " peak memory", length), "json-c alone", "bytes", once.peak,
                      floor.peak, once.peak / floor.peak, 1.25});
            rows.add({twice_beside_once(name + " allocations", length), "itself at N", "",
                      twice.allocations, once.allocations, twice.allocations / once.allocations,
                      2.2});
            rows.add({twice_beside_once(name + " peak memory", length), "itself at N", "bytes",
                      twice.peak, once.peak, twice.peak / once.peak, 2.2});
        }
    }
}

}  // namespace

void add_rows(table& rows)
{
    add_calls(rows);
    add_descriptors(rows);
    add_bytes(rows);
    add_growth(rows);
    add_memory(rows, memory_counts(output_of("peak_memory", {})));
}

}  // namespace bench
