/*
 * Measures one operation, or json-c alone doing its part of it, in one way:
 *
 *   time          nanoseconds of the first call in this process
 *   faults        page faults per call after the first
 *   instructions  for callgrind, which counts them between two marks
 *   input         nothing: prints the input of an import for the other three
 */
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <valgrind/callgrind.h>

#include "component.hpp"
#include "programs.hpp"

namespace {

using operation = std::function<void()>;

/** The input of an import, made by another process, so that this one's heap is untouched. */
std::string made_elsewhere(const std::string& side, const std::string& length)
{
    return bench::output_of("one_operation", {"input", side, "import", length});
}

/** An operation whose inputs are ready. A region is made for each export, and ended. */
operation prepare(const std::string& side, const std::string& name, const std::string& length)
{
    const bool is_ours = side == "ours";
    const size_t block_length = std::strtoul(length.c_str(), nullptr, 10);
    const auto device = std::make_shared<bench::scripted_device>(block_length);
    if (name == "export" && is_ours) {
        return [device] { bench::ask_for_descriptor(device->make_region().get()); };
    }
    if (name == "export") {
        return [block = bench::device_block(block_length)] { bench::json_floor_export(block); };
    }
    const std::string input = made_elsewhere(side, length);
    if (is_ours) {
        const std::vector<uint8_t> descriptor(input.begin(), input.end());
        return [device, descriptor] { device->import_region(descriptor); };
    }
    return [input] { bench::json_floor_import(input); };
}

void print_input(const std::string& side, const std::string& length)
{
    const size_t block_length = std::strtoul(length.c_str(), nullptr, 10);
    if (side == "floor") {
        std::fputs(bench::descriptor_text(block_length).c_str(), stdout);
        return;
    }
    bench::scripted_device device(block_length);
    const auto descriptor = bench::export_region(device.make_region().get());
    std::fwrite(descriptor.data(), 1, descriptor.size(), stdout);
}

long faults_until_now()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

void repeat(int times, const operation& call)
{
    for (int i = 0; i < times; ++i) {
        call();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() != 4) {
        std::fprintf(stderr,
                     "usage: one_operation time|faults|instructions|input ours|floor"
                     " export|import N\n");
        return EXIT_FAILURE;
    }
    if (arguments[0] == "input") {
        print_input(arguments[1], arguments[3]);
        return EXIT_SUCCESS;
    }
    const operation call = prepare(arguments[1], arguments[2], arguments[3]);
    if (arguments[0] == "time") {
        const auto start = std::chrono::steady_clock::now();
        call();
        const std::chrono::nanoseconds time = std::chrono::steady_clock::now() - start;
        std::printf("%lld\n", static_cast<long long>(time.count()));
    } else if (arguments[0] == "faults") {
        constexpr int counted = 20;
        call();
        const long before = faults_until_now();
        repeat(counted, call);
        std::printf("%.2f\n", static_cast<double>(faults_until_now() - before) / counted);
    } else {
        repeat(3, call);  // By then symbols are bound and the heap has grown.
        CALLGRIND_TOGGLE_COLLECT;
        repeat(5, call);
        CALLGRIND_TOGGLE_COLLECT;
    }
    return EXIT_SUCCESS;
}
