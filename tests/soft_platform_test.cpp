/*
 * The software platform on its own: log, converter, device, GPU and accelerator.
 */
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <new>
#include <set>
#include <thread>

#include "priv_rova_exception_converter.h"
#include "priv_rova_log.h"
#include "priv_rova_page_size.h"
#include "priv_rova_sub_dev_apx.h"
#include "priv_rova_sub_dev_gpu.h"
#include "support/soft_device.hpp"

namespace {

using support::log_texts;
using support::read_result;
using support::read_write;
using support::refusal;
using support::registration;
using support::soft_device;

const size_t page = priv_rova_get_page_size();

// Neither has a constructor that could run after the function below.
std::array<char, 64> early_text;
int early_source;

__attribute__((constructor(101))) void log_before_anything_else()
{
    rova_log_register_source("TEST::EARLY", &early_source);
    rova_soft_log_set_sink(
        [](const rova_soft_log_record* record, void*) {
            std::snprintf(early_text.data(), early_text.size(), "%s %s", record->source,
                          record->message);
        },
        nullptr);
    priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, early_source, "f", 1, "g", "early %d", 7);
    rova_soft_log_set_sink(nullptr, nullptr);
}

rova_error_t log(uint32_t level, int source, const std::string& text)
{
    return priv_rova_log_developer(level, source, "d/f.cpp", 42, "caller", "<%s>", text.c_str());
}

TEST(soft_log, works_before_main_and_shows_where_a_record_comes_from)
{
    EXPECT_STREQ(early_text.data(), "TEST::EARLY early 7");
    testing::internal::CaptureStderr();
    EXPECT_EQ(log(ROVA_LOG_LEVEL_WARNING, early_source, "shown"), ROVA_SUCCESS);
    EXPECT_EQ(log(ROVA_LOG_LEVEL_INFO, early_source, "dropped"), ROVA_SUCCESS);
    const std::string line = testing::internal::GetCapturedStderr();
    const std::string end = " warning [TEST::EARLY] d/f.cpp:42 caller: <shown>\n";
    EXPECT_EQ(line.find(end), line.size() - end.size()) << line;
}

TEST(soft_log, keeps_texts_of_any_length_and_names_of_any_source)
{
    log_texts heard;
    const std::pair<int, std::string> sources[] = {
        {early_source, "TEST::EARLY"},
        {0, "UNREGISTERED"},
        {99, "UNREGISTERED"},
        {-1, "UNREGISTERED"},
        {priv_rova_log_get_header_source(), "CORE::HEADER"}};
    for (const auto& [number, name] : sources) {
        for (const size_t length : {509U, 510U, 100000U}) {
            const std::string text(length, 'a');
            log(ROVA_LOG_LEVEL_CRIT, number, text);
            EXPECT_EQ(heard.back(), name + " caller: <" + text + ">") << length;
        }
    }
    EXPECT_EQ(rova_soft_log_set_level(45), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(heard.size(), 16U);
    EXPECT_EQ(rova_soft_log_set_level(ROVA_LOG_LEVEL_DISABLE), ROVA_SUCCESS);
    log(ROVA_LOG_LEVEL_CRIT, early_source, "dropped");
    EXPECT_EQ(rova_soft_log_set_level(ROVA_LOG_LEVEL_WARNING), ROVA_SUCCESS);
    EXPECT_EQ(log(35, early_source, "no such level"), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(heard.size(), 16U);
}

TEST(soft_converter, keeps_the_code_and_tells_what_was_thrown)
{
    const struct {
        std::function<void()> raise;
        rova_error_t code;
        std::string text;
    } rows[] = {
        {[] {
             throw rova::exception(ROVA_ERROR_DRIVER, "broken", {"there.cpp", "thrower", 9});
         },
         ROVA_ERROR_DRIVER, "broken (ROVA_ERROR_DRIVER), thrown at there.cpp:9 in thrower"},
        {[] { throw rova::exception(); }, ROVA_ERROR_UNKNOWN,
         "ROVA_ERROR_UNKNOWN (ROVA_ERROR_UNKNOWN)"},
        {[] { throw std::bad_alloc(); }, ROVA_ERROR_NO_MEMORY,
         "memory has run out (ROVA_ERROR_NO_MEMORY)"},
        {[] { throw std::runtime_error("odd"); }, ROVA_ERROR_UNEXPECTED,
         "odd (ROVA_ERROR_UNEXPECTED)"},
        {[] { throw 42; }, ROVA_ERROR_UNEXPECTED,
         "something was thrown that is no exception (ROVA_ERROR_UNEXPECTED)"},
    };
    log_texts heard;
    const auto convert = [] {
        return priv_rova_exception_to_rova_error_imp("f", 1, "handler", "Failed to try", false);
    };
    for (const auto& row : rows) {
        try {
            row.raise();
        } catch (...) {
            EXPECT_EQ(convert(), row.code);
        }
        EXPECT_EQ(heard.back(), "SOFT::PLATFORM handler: Failed to try: " + row.text);
    }
    EXPECT_EQ(convert(), ROVA_ERROR_UNEXPECTED);
    EXPECT_EQ(heard.size(), 6U);
    for (const int code : {-1, 32}) {
        EXPECT_STREQ(rova_error_get_name(static_cast<rova_error_t>(code)), "unknown error code");
    }
}

int make_file(size_t size)
{
    const int fd = ::memfd_create("test", MFD_CLOEXEC);
    EXPECT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
    return fd;
}

// Two pages that may be read and written, one that may be read, and one that is not there.
char* map_pages()
{
    auto* const begin = static_cast<char*>(
        ::mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ::mprotect(begin + 2 * page, page, PROT_READ);
    ::munmap(begin + 3 * page, page);
    return begin;
}

TEST(soft_device, refuses_what_it_cannot_register)
{
    const soft_device device;
    char* const memory = map_pages();
    const int file = make_file(page);
    const int read_only = ::open(("/proc/self/fd/" + std::to_string(file)).c_str(), O_RDONLY);
    std::array<int, 2> pipe = {};
    ASSERT_EQ(::pipe(pipe.data()), 0);
    const auto host = [&](size_t offset, size_t size, uint32_t flags, size_t page_size) {
        return refusal([&] {
            device->deregister_umem(
                device->register_umem(memory + offset, size, flags, page_size).first);
        });
    };
    const auto dmabuf = [&](int fd, size_t offset, size_t size, uint32_t flags) {
        return refusal([&] { device->register_umem_dmabuf(fd, nullptr, offset, size, flags, 64); });
    };
    const struct {
        std::string refused;
        std::string code;
        std::string part;
    } rows[] = {
        {host(0, 0, 3, page), "INVALID_VALUE", "size 0"},
        {host(0, SIZE_MAX, 3, page), "INVALID_VALUE", "wrap round the address space"},
        {host(0, page, 3, 0), "INVALID_VALUE", "page size 0 is no power of two"},
        {host(0, page, 3, 48), "INVALID_VALUE", "page size 48 is no power of two"},
        {host(0, page, 4, page), "INVALID_VALUE", "access flags 0x4"},
        {host(page, 2 * page + 1, 1, page), "INVALID_VALUE", "is not mapped at 0x"},
        {host(3 * page, 1, 1, page), "INVALID_VALUE", "is not mapped at 0x"},
        {host(2 * page - 1, 2, 3, page), "NOT_PERMITTED", "without the right to write"},
        {host(1, 3 * page - 1, 1, 1), "", ""},
        {dmabuf(-1, 0, 1, 1), "INVALID_VALUE", "is not open"},
        {dmabuf(pipe[0], 0, 1, 1), "INVALID_VALUE", "cannot be mapped shared"},
        {dmabuf(file, 1, page, 1), "INVALID_VALUE", "reach past the end"},
        {dmabuf(file, SIZE_MAX, 2, 1), "INVALID_VALUE", "reach past the end"},
        {dmabuf(file, 2, SIZE_MAX, 1), "INVALID_VALUE", "reach past the end"},
        {dmabuf(read_only, 0, 1, 3), "NOT_PERMITTED", "with rights rw"},
    };
    for (const auto& row : rows) {
        const std::string code = row.code.empty() ? "" : "ROVA_ERROR_" + row.code;
        EXPECT_EQ(row.refused.substr(0, code.size()), code) << row.part << ": " << row.refused;
        EXPECT_NE(row.refused.find(row.part), std::string::npos) << row.refused;
        EXPECT_EQ(row.refused.empty(), row.code.empty()) << row.refused;
    }
    for (const int fd : {file, read_only, pipe[0], pipe[1]}) {
        ::close(fd);
    }
}

TEST(soft_device, moves_bytes_within_a_region_and_never_beside_it)
{
    const soft_device device;
    const log_texts heard;
    std::string memory = "0123456789";
    const registration regions[] = {device.add(memory), device.add(memory, ROVA_SOFT_ACCESS_READ),
                                    device.add(memory, ROVA_SOFT_ACCESS_WRITE)};
    const uint32_t id = regions[0].second;
    EXPECT_EQ(device.read(id, 3, 4), read_result(ROVA_SUCCESS, "3456"));
    EXPECT_EQ(device.write(id, 8, "ab"), ROVA_SUCCESS);
    EXPECT_EQ(rova_soft_dev_read(device.m_dev, id, 10, nullptr, 0), ROVA_SUCCESS);
    EXPECT_EQ(rova_soft_dev_read(device.m_dev, id, 0, nullptr, 1), ROVA_ERROR_INVALID_VALUE);
    for (const uint64_t offset : {uint64_t{9}, uint64_t{11}, UINT64_MAX, UINT64_MAX - 1}) {
        EXPECT_EQ(device.read(id, offset, 2), read_result(ROVA_ERROR_INVALID_VALUE, "xx"));
        EXPECT_EQ(device.write(id, offset, "no"), ROVA_ERROR_INVALID_VALUE) << offset;
    }
    EXPECT_EQ(device.write(regions[1].second, 0, "no"), ROVA_ERROR_NOT_PERMITTED);
    EXPECT_EQ(device.read(regions[2].second, 0, 2), read_result(ROVA_ERROR_NOT_PERMITTED, "xx"));
    EXPECT_EQ(memory, "01234567ab");
    for (const registration& each : regions) {
        EXPECT_EQ(device->deregister_umem(each.first), ROVA_SUCCESS);
        EXPECT_EQ(device.read(each.second, 0, 2), read_result(ROVA_ERROR_NOT_FOUND, "xx"));
    }
}

TEST(soft_device, maps_a_dmabuf_itself_and_survives_memory_that_goes_away)
{
    const soft_device device;
    const int file = make_file(3 * page);
    const int kept = ::dup(file);
    ASSERT_EQ(::pwrite(file, "abcdef", 6, static_cast<off_t>(page - 3)), 6);
    const registration odd =
        device->register_umem_dmabuf(file, nullptr, page - 2, page, read_write, page);
    ::close(file);
    EXPECT_EQ(device.read(odd.second, 0, 5), read_result(ROVA_SUCCESS, "bcdef"));
    EXPECT_EQ(device.write(odd.second, 1, "X"), ROVA_SUCCESS);
    char seen = 0;
    EXPECT_EQ(::pread(kept, &seen, 1, static_cast<off_t>(page - 1)), 1);
    EXPECT_EQ(seen, 'X');

    char* const pages = map_pages();
    const registration host = device->register_umem(pages + page - 2, page, read_write, 1);
    const log_texts heard;
    ASSERT_EQ(::ftruncate(kept, static_cast<off_t>(page)), 0);
    ::close(kept);
    ::munmap(pages + page, page);
    for (const auto& [handle, id] : {odd, host}) {
        const read_result zeros(ROVA_ERROR_IO_FAILED, std::string(page, '\0'));
        EXPECT_EQ(device.read(id, 0, page), zeros);
        EXPECT_EQ(device.write(id, 5, "no"), ROVA_ERROR_IO_FAILED);
        EXPECT_EQ(device->deregister_umem(handle), ROVA_SUCCESS);
    }
}

TEST(soft_device, knows_its_handles_and_ids_from_first_to_last)
{
    rova_dev* dev = nullptr;
    ASSERT_EQ(rova_soft_dev_open(&dev), ROVA_SUCCESS);
    const auto tlox = dev->device_adapter->get_tlox_adapter();
    const soft_device other;
    const log_texts heard;
    std::string memory = "memory";
    const registration kept = tlox->register_umem(memory.data(), 6, read_write, 1);
    const registration released = tlox->register_umem(memory.data(), 6, read_write, 1);
    EXPECT_EQ(std::set<uint32_t>({0, kept.second, released.second}).size(), 3U);
    EXPECT_EQ(other->deregister_umem(kept.first), ROVA_ERROR_NOT_FOUND);
    EXPECT_EQ(rova_soft_dev_close(dev), ROVA_ERROR_IN_USE);
    tlox->release_umem(released.first);
    tlox_umem* const no_handles[] = {nullptr, reinterpret_cast<tlox_umem*>(8), released.first};
    for (tlox_umem* handle : no_handles) {
        const std::string code = handle == nullptr ? "ROVA_ERROR_INVALID" : "ROVA_ERROR_NOT_FOUND";
        EXPECT_EQ(tlox->deregister_umem(handle), ROVA_ERROR_NOT_FOUND);
        EXPECT_EQ(refusal([&] { tlox->export_umem(handle); }).rfind(code, 0), 0U);
        EXPECT_EQ(refusal([&] { tlox->release_umem(handle); }).rfind(code, 0), 0U);
    }
    EXPECT_EQ(rova_soft_dev_write(dev, released.second, 0, "M", 1), ROVA_SUCCESS);
    EXPECT_EQ(memory, "Memory");
    size_t count = 0;
    EXPECT_EQ(rova_soft_dev_count_registrations(dev, &count), ROVA_SUCCESS);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(tlox->deregister_umem(kept.first), ROVA_SUCCESS);
    EXPECT_EQ(tlox->deregister_umem(kept.first), ROVA_ERROR_NOT_FOUND);
    EXPECT_EQ(rova_soft_dev_close(dev), ROVA_SUCCESS);
    EXPECT_EQ(heard.size(), 1U);

    rova_dev foreign;
    for (rova_dev* wrong : {static_cast<rova_dev*>(nullptr), &foreign}) {
        EXPECT_EQ(rova_soft_dev_close(wrong), ROVA_ERROR_INVALID_VALUE);
        EXPECT_EQ(rova_soft_dev_read(wrong, 1, 0, &count, 1), ROVA_ERROR_INVALID_VALUE);
    }
    EXPECT_EQ(heard.size(), 5U);
}

TEST(soft_device, serves_many_threads_at_once)
{
    const soft_device device;
    const log_texts heard;
    std::string memory(1 << 16, 'm');
    const registration shared = device.add(memory);
    std::atomic<int> rounds{0};
    std::atomic<int> wrong{0};
    std::array<std::thread, 4> threads;
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            std::string own(100, 'o');
            for (rova_error_t code = ROVA_SUCCESS; code == ROVA_SUCCESS; ++rounds) {
                const registration mine = device.add(own);
                wrong += device.read(mine.second, 0, 100) != read_result(ROVA_SUCCESS, own);
                wrong += device->deregister_umem(mine.first) != ROVA_SUCCESS;
                code = device.read(shared.second, 0, memory.size()).first;
                wrong += code != ROVA_SUCCESS && code != ROVA_ERROR_NOT_FOUND;
            }
        });
    }
    while (rounds < 40) {
        std::this_thread::yield();
    }
    EXPECT_EQ(device->deregister_umem(shared.first), ROVA_SUCCESS);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST(soft_gpu, gives_a_dmabuf_only_where_an_allocation_begins)
{
    const soft_device device;
    const log_texts heard;
    rova_gpu* gpu = nullptr;
    void* address = nullptr;
    ASSERT_EQ(rova_soft_gpu_open(&gpu), ROVA_SUCCESS);
    EXPECT_EQ(rova_soft_gpu_alloc(gpu, 0, &address), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(rova_soft_gpu_alloc(gpu, SIZE_MAX, &address), ROVA_ERROR_NO_MEMORY);
    ASSERT_EQ(rova_soft_gpu_alloc(gpu, 5, &address), ROVA_SUCCESS);
    const auto ask = [&](size_t offset, size_t size, int* fd) {
        return priv_rova_sub_dev_gpu_ops_get()->get_dmabuf_fd_cb(
            gpu, static_cast<char*>(address) + offset, size, fd);
    };
    int fd = -1;
    EXPECT_EQ(ask(16, 16, &fd), ROVA_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(ask(0, page + 1, &fd), ROVA_ERROR_INVALID_VALUE);
    rova_soft_gpu_set_dmabuf_supported(gpu, false);
    EXPECT_EQ(ask(0, page, &fd), ROVA_ERROR_NOT_SUPPORTED);
    rova_soft_gpu_set_dmabuf_supported(gpu, true);
    ASSERT_EQ(ask(0, page, &fd), ROVA_SUCCESS);

    const registration whole = device->register_umem_dmabuf(fd, address, 0, page, read_write, page);
    const registration legacy = device->register_umem(address, page, read_write, page);
    std::memcpy(address, "gpu", 3);
    EXPECT_EQ(rova_soft_gpu_close(gpu), ROVA_ERROR_IN_USE);
    EXPECT_EQ(rova_soft_gpu_free(gpu, nullptr), ROVA_ERROR_NOT_FOUND);
    EXPECT_EQ(rova_soft_gpu_free(gpu, address), ROVA_SUCCESS);
    EXPECT_EQ(device.read(whole.second, 0, 3), read_result(ROVA_SUCCESS, "gpu"));
    EXPECT_EQ(device.read(legacy.second, 0, 3).first, ROVA_ERROR_IO_FAILED);
    EXPECT_EQ(device->deregister_umem(whole.first), ROVA_SUCCESS);
    EXPECT_EQ(device->deregister_umem(legacy.first), ROVA_SUCCESS);
    EXPECT_EQ(rova_soft_gpu_close(gpu), ROVA_SUCCESS);
}

TEST(soft_apx, has_memory_of_its_own_that_is_one_umem)
{
    constexpr uint64_t base = 0xFFFFFFFF00000000;
    const soft_device device;
    const log_texts heard;
    rova_apx* apx = nullptr;
    EXPECT_EQ(rova_soft_apx_open(device.m_dev, UINT64_MAX - 1, 1, &apx), ROVA_ERROR_INVALID_VALUE);
    ASSERT_EQ(rova_soft_apx_open(device.m_dev, base, 100, &apx), ROVA_SUCCESS);
    const priv_rova_sub_dev_apx_ops* const ops = priv_rova_sub_dev_apx_ops_get();
    uint32_t id = 0;
    uint64_t offset = 0;
    EXPECT_EQ(ops->get_dev_cb(apx), device.m_dev);
    EXPECT_EQ(ops->get_umem_id_cb(apx, &id), ROVA_SUCCESS);
    EXPECT_EQ(ops->get_umem_base_offset_cb(apx, base + page - 1, &offset), ROVA_SUCCESS);
    EXPECT_EQ(offset, page - 1);
    for (const uint64_t outside : {base - 1, base + page, uint64_t{0}}) {
        EXPECT_EQ(ops->get_umem_base_offset_cb(apx, outside, &offset), ROVA_ERROR_INVALID_VALUE);
        EXPECT_EQ(rova_soft_apx_read(apx, outside, &offset, 1), ROVA_ERROR_INVALID_VALUE);
    }
    EXPECT_EQ(rova_soft_apx_write(apx, base + page - 1, "ab", 2), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(rova_soft_apx_write(apx, base + 7, "ab", 2), ROVA_SUCCESS);
    EXPECT_EQ(device.read(id, 7, 2), read_result(ROVA_SUCCESS, "ab"));
    EXPECT_EQ(device.write(id, 8, "B"), ROVA_SUCCESS);
    std::string seen = "xx";
    EXPECT_EQ(rova_soft_apx_read(apx, base + 7, seen.data(), 2), ROVA_SUCCESS);
    EXPECT_EQ(seen, "aB");
    EXPECT_EQ(rova_soft_dev_close(device.m_dev), ROVA_ERROR_IN_USE);
    EXPECT_EQ(rova_soft_apx_close(apx), ROVA_SUCCESS);
    EXPECT_EQ(device.read(id, 0, 1).first, ROVA_ERROR_NOT_FOUND);
}

TEST(soft_layers, can_be_absent)
{
    for (const bool present : {false, true}) {
        rova_soft_gpu_layer_set_present(present);
        rova_soft_apx_layer_set_present(present);
        EXPECT_EQ(priv_rova_sub_dev_gpu_ops_get() != nullptr, present);
        EXPECT_EQ(priv_rova_sub_dev_apx_ops_get() != nullptr, present);
    }
}

}  // namespace
