/*
 * Allocations and peak memory of an operation, json-c's included. It is a separate program, so that
 * the counting does not affect the times.
 *
 * Prints lines of: operation, block length, allocations, peak bytes.
 */
#include <malloc.h>

#include <cstdio>

#include "component.hpp"

extern "C" {
// The C library's allocator, under the names that stay when it is replaced below.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);
}

namespace {

struct usage {
    bool counting = false;
    size_t allocations = 0;
    size_t live = 0;
    size_t peak = 0;

    void taken(void* block)
    {
        if (counting) {
            ++allocations;
            live += malloc_usable_size(block);
            peak = live > peak ? live : peak;
        }
    }

    /** Freeing memory from before the counting began never makes the count negative. */
    void given_back(void* block)
    {
        if (counting) {
            const size_t size = malloc_usable_size(block);
            live -= size < live ? size : live;
        }
    }
};

usage current;

template <typename step_function>
void count(const char* operation, size_t length, step_function step)
{
    current = usage();
    current.counting = true;
    step();
    current.counting = false;
    const usage counted = current;
    std::printf("%s %zu %zu %zu\n", operation, length, counted.allocations, counted.peak);
}

void count_all(size_t length)
{
    bench::scripted_device device(length);
    const bench::region region = device.make_region();
    const auto ask = [&] { bench::ask_for_descriptor(region.get()); };
    count("export", length, ask);
    count("export_again", length, ask);

    const std::vector<uint8_t> descriptor = bench::export_region(region.get());
    bench::region imported;
    count("import", length, [&] { imported = device.import_region(descriptor); });

    const std::vector<uint8_t> block = bench::device_block(length);
    count("floor_export", length, [&] { bench::json_floor_export(block); });
    const std::string text = bench::descriptor_text(length);
    count("floor_import", length, [&] { bench::json_floor_import(text); });
}

}  // namespace

extern "C" {

void* malloc(size_t size) noexcept
{
    void* block = __libc_malloc(size);
    current.taken(block);
    return block;
}

void* calloc(size_t count, size_t size) noexcept
{
    void* block = __libc_calloc(count, size);
    current.taken(block);
    return block;
}

void* realloc(void* block, size_t size) noexcept
{
    current.given_back(block);
    void* moved = __libc_realloc(block, size);
    current.taken(moved);
    return moved;
}

void free(void* block) noexcept
{
    current.given_back(block);
    __libc_free(block);
}
}

int main()
{
    count_all(64);  // Makes the allocations that happen only once in a process.
    for (const size_t length : {512u, 4096u, 8192u, 65536u, 131072u}) {
        count_all(length);
    }
}
