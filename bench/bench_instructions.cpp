/*
 * One operation, several times, for callgrind, which counts the instructions between two marks.
 */
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <valgrind/callgrind.h>

#include "subjects.hpp"

namespace {

constexpr size_t uncounted = 3;  // Symbols are bound and the heap finds its shape.
constexpr size_t counted = 5;

/** Takes a step on each of several inputs, which are made beforehand, and has the later counted. */
template <typename make_function, typename step_function>
void count(make_function make, step_function step)
{
    std::vector<decltype(make())> inputs;
    for (size_t i = 0; i < uncounted + counted; ++i) {
        inputs.push_back(make());
    }
    for (size_t i = 0; i < inputs.size(); ++i) {
        if (i == uncounted) {
            CALLGRIND_TOGGLE_COLLECT;
        }
        step(inputs[i]);
    }
    CALLGRIND_TOGGLE_COLLECT;
}

void count_export(bool floor, size_t length)
{
    if (floor) {
        const std::vector<uint8_t> block = bench::device_block(length);
        count([] { return 0; }, [&](int) { bench::json_floor_export(block); });
        return;
    }
    bench::scripted_device device(length);
    count([&] { return device.make_region(); },
          [](bench::region& region) {
              void* bytes = nullptr;
              size_t bytes_length = 0;
              if (priv_rova_umem_export(region.get(), &bytes, &bytes_length) != ROVA_SUCCESS) {
                  std::exit(EXIT_FAILURE);
              }
          });
}

void count_import(bool floor, size_t length)
{
    if (floor) {
        // Not from a descriptor: the heap that the floor finds must not depend on the library.
        std::string text;
        bench::json_floor_export(bench::device_block(length), &text);
        count([] { return 0; }, [&](int) { bench::json_floor_import(text); });
        return;
    }
    bench::scripted_device device(length);
    const std::vector<uint8_t> descriptor = bench::export_region(device.make_region().get());
    count([] { return bench::region(); },
          [&](bench::region& region) { region = device.import_region(descriptor); });
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string_view side = argc == 4 ? argv[1] : "";
    const std::string_view operation = argc == 4 ? argv[2] : "";
    const size_t length = argc == 4 ? std::strtoul(argv[3], nullptr, 10) : 0;
    const bool known = (side == "ours" || side == "floor") &&
                       (operation == "export" || operation == "import") && length != 0;
    if (!known) {
        std::fprintf(stderr, "usage: bench_instructions ours|floor export|import N\n");
        return EXIT_FAILURE;
    }
    if (operation == "export") {
        count_export(side == "floor", length);
    } else {
        count_import(side == "floor", length);
    }
    return EXIT_SUCCESS;
}
