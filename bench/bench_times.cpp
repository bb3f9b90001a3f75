/*
 * Times beside their floors: a table of ratios for people, and the same as JSON.
 *
 * A row's two sides run in the same process in turns, and each turn has a ratio of its own, so that
 * a slow moment of the machine falls on both sides of it. The table has the medians over the turns.
 */
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <json-c/json.h>
#include <zlib.h>

#include "priv_rova_umem.hpp"
#include "priv_rova_utils.hpp"
#include "subjects.hpp"

namespace {

constexpr int turns = 31;
constexpr double seconds_per_side = 0.01;
constexpr uint32_t checksum_polynomial = 0x04C11DB7;
constexpr char scrambling_key = 0x4E;

/** One line of the table. `ours` is what the library needs, `floor` what it stands beside. */
struct row {
    std::string what;
    std::string beside;
    std::string unit;
    double ours;
    double floor;
    double ratio;
    std::optional<double> at_most;  // Without: a row that only informs.

    bool met() const { return !at_most || ratio <= *at_most; }
};

using side = std::function<void(benchmark::State&)>;

// ---- Running a pair --------------------------------------------------------------------------

/** Keeps the CPU time of the last run. */
class time_reporter final : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        m_time = runs.back().GetAdjustedCPUTime();
    }

    double time() const { return m_time; }

private:
    double m_time = 0;
};

double run_once(const side& run)
{
    benchmark::ClearRegisteredBenchmarks();
    benchmark::RegisterBenchmark("side", run)->MinTime(seconds_per_side);
    time_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter, "all");
    return reporter.time();
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

row measure(const std::string& what, const side& ours, const std::string& beside, const side& floor,
            std::optional<double> at_most)
{
    std::vector<double> our_times;
    std::vector<double> floor_times;
    std::vector<double> ratios;
    for (int turn = 0; turn < turns; ++turn) {
        our_times.push_back(run_once(ours));
        floor_times.push_back(run_once(floor));
        ratios.push_back(our_times.back() / floor_times.back());
    }
    std::fprintf(stderr, "%s, beside %s\n", what.c_str(), beside.c_str());
    return {what, beside, "ns", median(our_times), median(floor_times), median(ratios), at_most};
}

// ---- Sides -----------------------------------------------------------------------------------

/** A side that does one thing, over and over. */
template <typename step_function>
side repeat(step_function step)
{
    return [step](benchmark::State& state) {
        for ([[maybe_unused]] const auto _ : state) {
            benchmark::DoNotOptimize(step());
        }
    };
}

/** A side that does something once to each of many regions, which are made and ended untimed. */
template <typename make_function, typename step_function>
void repeat_on_regions(benchmark::State& state, size_t length, make_function make,
                       step_function step)
{
    // Stopping the clock costs about a microsecond; few large descriptors fit in a cache.
    const size_t batch = std::max<size_t>(1, 4096 / length);
    std::vector<bench::region> regions(batch);
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(batch))) {
        state.PauseTiming();
        for (bench::region& region : regions) {
            region = make();
        }
        state.ResumeTiming();
        for (bench::region& region : regions) {
            step(region);
        }
    }
}

void export_once(bench::region& region)
{
    void* bytes = nullptr;
    size_t length = 0;
    benchmark::DoNotOptimize(priv_rova_umem_export(region.get(), &bytes, &length));
    benchmark::DoNotOptimize(bytes);
}

side first_export(size_t length)
{
    return [length](benchmark::State& state) {
        bench::scripted_device device(length);
        repeat_on_regions(
            state, length, [&] { return device.make_region(); }, export_once);
    };
}

side import(size_t length)
{
    return [length](benchmark::State& state) {
        bench::scripted_device device(length);
        const auto descriptor = bench::export_region(device.make_region().get());
        repeat_on_regions(
            state, length, [] { return bench::region(); },
            [&](bench::region& region) { region = device.import_region(descriptor); });
    };
}

side floor_export(size_t length)
{
    return repeat(
        [block = bench::device_block(length)] { return bench::json_floor_export(block); });
}

side floor_import(size_t length)
{
    return repeat(
        [text = bench::descriptor_text(length)] { return bench::json_floor_import(text); });
}

void register_and_deregister(benchmark::State& state)
{
    bench::scripted_device device(1);
    char memory = 0;
    priv_rova_umem* region = nullptr;
    for ([[maybe_unused]] const auto _ : state) {
        benchmark::DoNotOptimize(
            priv_rova_umem_create_pg_sz(device.dev(), &memory, 1, 1, 0, &region));
        benchmark::DoNotOptimize(priv_rova_umem_destroy(region));
    }
}

/** The two calls, on an adapter that `adapter_of` gives for each, and memory for a region. */
template <typename adapter_function>
side adapter_calls(adapter_function adapter_of)
{
    return [adapter_of](benchmark::State& state) {
        struct alignas(priv_rova_umem) region_sized {
            char bytes[sizeof(priv_rova_umem)];
        };
        bench::scripted_device device(1);
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
        bench::scripted_device device(64);
        bench::region region = device.make_region();
        export_once(region);
        auto callee = call;
        benchmark::DoNotOptimize(callee);
        void* bytes = nullptr;
        size_t length = 0;
        for ([[maybe_unused]] const auto _ : state) {
            benchmark::DoNotOptimize(callee(region.get(), &bytes, &length));
        }
    };
}

// ---- Rows ------------------------------------------------------------------------------------

std::string of_bytes(const std::string& what, size_t length)
{
    return what + ", N = " + std::to_string(length);
}

std::string twice_beside_once(const std::string& what, size_t length)
{
    return of_bytes(what, 2 * length) + " beside " + std::to_string(length);
}

void add_calls(std::vector<row>& rows)
{
    const auto kept = [](bench::scripted_device& device) { return &device.adapter(); };
    const auto asked_for = [](bench::scripted_device& device) {
        return device.dev()->device_adapter->get_tlox_adapter();
    };
    rows.push_back(measure("register and deregister", register_and_deregister,
                           "the adapter's calls, new, delete", adapter_calls(kept), 1.5));
    // Nobody may keep an adapter, so whoever calls it has to ask the device for it each time.
    rows.push_back(measure("register and deregister", register_and_deregister,
                           "those, adapter asked for each time", adapter_calls(asked_for),
                           std::nullopt));
    rows.push_back(measure("second export", repeat_call(priv_rova_umem_export),
                           "a call through a pointer", repeat_call(bench::do_nothing), 5));
}

void add_descriptors(std::vector<row>& rows)
{
    for (const size_t length : {64u, 512u, 4096u, 65536u}) {
        rows.push_back(measure(of_bytes("first export", length), first_export(length),
                               "json-c alone", floor_export(length), length < 512 ? 1.5 : 1.25));
    }
    for (const size_t length : {64u, 512u, 4096u, 65536u}) {
        rows.push_back(measure(of_bytes("import", length), import(length), "json-c alone",
                               floor_import(length), length < 512 ? 1.3 : 1.25));
    }
}

void add_bytes(std::vector<row>& rows)
{
    static std::vector<uint8_t> source = bench::device_block(262144);
    static std::vector<uint8_t> target(source.size());
    for (const size_t length : {2048u, 262144u}) {
        const auto ours =
            repeat([length] { return priv_rova_utils_crc32_normal(source.data(), length); });
        const auto loop = repeat(
            [length] { return priv_rova_utils_crc32(source.data(), length, checksum_polynomial); });
        const auto zlib =
            repeat([length] { return crc32(0, source.data(), static_cast<uInt>(length)); });
        rows.push_back(
            measure(of_bytes("checksum", length), ours, "the bit-by-bit loop", loop, 0.1));
        rows.push_back(measure(of_bytes("checksum", length), ours, "zlib's crc32", zlib, 1));
    }
    const auto scramble = repeat([] {
        priv_rova_utils_scramble_descramble(target.data(), source.data(), source.size(),
                                            scrambling_key);
        benchmark::ClobberMemory();
        return 0;
    });
    const auto copy = repeat([] {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::ClobberMemory();
        return 0;
    });
    rows.push_back(measure(of_bytes("scrambling", source.size()), scramble, "memcpy", copy, 2));
}

void add_growth(std::vector<row>& rows)
{
    for (const size_t length : {4096u, 65536u}) {
        rows.push_back(measure(twice_beside_once("export time", length), first_export(2 * length),
                               "itself at N", first_export(length), 2.2));
        rows.push_back(measure(twice_beside_once("import time", length), import(2 * length),
                               "itself at N", import(length), 2.2));
    }
}

/** What bench_memory has printed: two counts for an operation on blocks of a length. */
class memory_counts {
public:
    struct counts {
        double allocations = 0;
        double peak = 0;
    };

    explicit memory_counts(const char* path)
    {
        std::ifstream lines(path);
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

void add_memory(std::vector<row>& rows, const memory_counts& memory)
{
    // No allocation at all: the ratio to one allocation.
    const double again = memory.of("export_again", 512).allocations;
    rows.push_back({"second export, allocations", "one", "", again, 1, again, 0});
    for (const char* operation : {"export", "import"}) {
        for (const size_t length : {4096u, 65536u}) {
            const auto& once = memory.of(operation, length);
            const auto& twice = memory.of(operation, 2 * length);
            const std::string name = operation;
            rows.push_back({twice_beside_once(name + " allocations", length), "itself at N", "",
                            twice.allocations, once.allocations,
                            twice.allocations / once.allocations, 2.2});
            rows.push_back({twice_beside_once(name + " peak memory", length), "itself at N",
                            "bytes", twice.peak, once.peak, twice.peak / once.peak, 2.2});
        }
    }
}

// ---- Showing them ----------------------------------------------------------------------------

void print_table(const std::vector<row>& rows)
{
    std::printf("%-46s %-34s %12s %12s %7s %8s\n", "what", "beside", "ours", "beside", "ratio",
                "at most");
    for (const row& line : rows) {
        std::printf("%-46s %-34s %12.1f %12.1f %7.3f ", line.what.c_str(), line.beside.c_str(),
                    line.ours, line.floor, line.ratio);
        if (line.at_most) {
            std::printf("%8.2f %s\n", *line.at_most, line.met() ? "" : "MISSED");
        } else {
            std::printf("%8s\n", "-");
        }
    }
}

bool write_json(const std::vector<row>& rows, const char* path)
{
    const std::unique_ptr<json_object, decltype(&json_object_put)> array(json_object_new_array(),
                                                                         &json_object_put);
    for (const row& line : rows) {
        json_object* object = json_object_new_object();
        json_object_object_add(object, "what", json_object_new_string(line.what.c_str()));
        json_object_object_add(object, "beside", json_object_new_string(line.beside.c_str()));
        json_object_object_add(object, "unit", json_object_new_string(line.unit.c_str()));
        json_object_object_add(object, "ours", json_object_new_double(line.ours));
        json_object_object_add(object, "floor", json_object_new_double(line.floor));
        json_object_object_add(object, "ratio", json_object_new_double(line.ratio));
        json_object_object_add(object, "at_most",
                               line.at_most ? json_object_new_double(*line.at_most) : nullptr);
        json_object_object_add(object, "met", json_object_new_boolean(line.met() ? 1 : 0));
        json_object_array_add(array.get(), object);
    }
    return json_object_to_file_ext(path, array.get(), JSON_C_TO_STRING_PRETTY) == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr,
                     "usage: bench_times MEMORY JSON\n"
                     "  MEMORY  what bench_memory has printed\n"
                     "  JSON    receives the table\n");
        return EXIT_FAILURE;
    }
    // The heap keeps what it has got, as in a process that works on. Otherwise a row shows mostly
    // whether something happened to lie at the heap's end, or all of it went back to the kernel.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);

    const memory_counts memory(argv[1]);
    char* arguments[] = {argv[0], nullptr};
    int count = 1;
    benchmark::Initialize(&count, arguments);

    std::vector<row> rows;
    add_calls(rows);
    add_descriptors(rows);
    add_bytes(rows);
    add_growth(rows);
    add_memory(rows, memory);
    print_table(rows);
    if (!write_json(rows, argv[2])) {
        std::fprintf(stderr, "bench_times: cannot write %s\n", argv[2]);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
