/*
 * The software platform on its own: device, GPU and accelerator.
 */
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "priv_rova_page_size.h"
#include "priv_rova_sub_dev_apx.h"
#include "priv_rova_sub_dev_gpu.h"
#include "support/soft_device.hpp"

namespace {

using namespace support;

const size_t page = priv_rova_get_page_size();

TEST(soft_device, refuses_what_it_cannot_register)
{
    const soft_device device;
    char memory = 0;
    const int file = ::open("/proc/self/exe", O_RDONLY);
    const auto end = static_cast<size_t>(::lseek(file, 0, SEEK_END));
    const auto host = [&](size_t size, uint32_t flags, size_t page_size) {
        return refusal([&] { device->register_umem(&memory, size, flags, page_size); });
    };
    const auto dmabuf = [&](int fd, size_t offset, size_t size, uint32_t flags) {
        return refusal([&] { device->register_umem_dmabuf(fd, nullptr, offset, size, flags, 64); });
    };
    const std::pair<std::string, std::string> rows[] = {
        {host(0, 3, page), "INVALID_VALUE*size 0"},
        {host(1, 3, 0), "INVALID_VALUE*page size 0 is not a power of two"},
        {host(1, 3, 48), "INVALID_VALUE*page size 48 is not a power of two"},
        {host(1, 4, page), "INVALID_VALUE*access flags 0x4"},
        {host(SIZE_MAX, 3, page), "INVALID_VALUE*wrap round"},
        {dmabuf(-1, 0, 1, 1), "INVALID_VALUE*is not open"},
        {dmabuf(file, 1, end, 1), "INVALID_VALUE*reach past the end"},
        {dmabuf(file, 2, SIZE_MAX, 1), "INVALID_VALUE*reach past the end"},
        {dmabuf(file, 0, 1, 3), "NOT_PERMITTED*with rights rw"},
    };
    for (const auto& [refused, pattern] : rows) {
        expect_match(refused, pattern);
    }
}

TEST(soft_device, moves_bytes_within_a_region_and_never_outside)
{
    const soft_device device;
    const soft_device other;
    std::string memory = "0123456789";
    const registration both = device.add(memory);
    const registration reads = device.add(memory, ROVA_PLATFORM_ACCESS_READ);
    const registration writes = device.add(memory, ROVA_PLATFORM_ACCESS_WRITE);
    EXPECT_EQ(device.read(both.second, 3, 4), read_result(ROVA_SUCCESS, "3456"));
    EXPECT_EQ(device.read(both.second, 10, 0), read_result(ROVA_SUCCESS, ""));
    EXPECT_EQ(device.write(both.second, 8, "ab"), ROVA_SUCCESS);
    for (const uint64_t offset : {uint64_t{9}, uint64_t{11}, UINT64_MAX}) {
        EXPECT_EQ(device.read(both.second, offset, 2), read_result(ROVA_ERROR_INVALID_VALUE, "xx"));
        EXPECT_EQ(device.write(both.second, offset, "no"), ROVA_ERROR_INVALID_VALUE);
    }
    EXPECT_EQ(device.read(writes.second, 0, 2), read_result(ROVA_ERROR_NOT_PERMITTED, "xx"));
    EXPECT_EQ(device.write(reads.second, 0, "no"), ROVA_ERROR_NOT_PERMITTED);
    EXPECT_EQ(memory, "01234567ab");
    EXPECT_EQ(rova_platform_dev_close(device.m_dev), ROVA_ERROR_IN_USE);
    for (const auto& [handle, id] : {both, reads, writes}) {
        EXPECT_NE(id, 0U);
        EXPECT_EQ(other->deregister_umem(handle), ROVA_ERROR_NOT_FOUND);
        EXPECT_EQ(device->deregister_umem(handle), ROVA_SUCCESS);
        EXPECT_EQ(device.read(id, 0, 2), read_result(ROVA_ERROR_NOT_FOUND, "xx"));
    }
    rova_dev foreign;
    EXPECT_EQ(rova_platform_dev_close(&foreign), ROVA_ERROR_INVALID_VALUE);
}

TEST(soft_device, maps_a_dmabuf_itself_and_survives_its_truncation)
{
    const soft_device device;
    const int file = ::memfd_create("test", MFD_CLOEXEC);
    const int kept = ::dup(file);
    ASSERT_EQ(::ftruncate(file, static_cast<off_t>(3 * page)), 0);
    ASSERT_EQ(::pwrite(file, "abcdef", 6, static_cast<off_t>(page - 3)), 6);
    const registration odd =
        device->register_umem_dmabuf(file, nullptr, page - 2, page, read_write, page);
    ::close(file);
    EXPECT_EQ(device.write(odd.second, 1, "X"), ROVA_SUCCESS);
    EXPECT_EQ(device.read(odd.second, 0, 5), read_result(ROVA_SUCCESS, "bXdef"));
    ASSERT_EQ(::ftruncate(kept, static_cast<off_t>(page)), 0);
    ::close(kept);
    EXPECT_EQ(device.read(odd.second, 0, 3), read_result(ROVA_ERROR_IO_FAILED, {0, 0, 0}));
    EXPECT_EQ(device.write(odd.second, 5, "no"), ROVA_ERROR_IO_FAILED);
    device->deregister_umem(odd.first);
}

TEST(soft_gpu, gives_a_dmabuf_only_where_an_allocation_begins)
{
    const soft_device device;
    rova_gpu* gpu = nullptr;
    void* address = nullptr;
    int fd = -1;
    ASSERT_EQ(rova_soft_gpu_open(&gpu), ROVA_SUCCESS);
    ASSERT_EQ(rova_soft_gpu_alloc(gpu, 5, &address), ROVA_SUCCESS);
    const auto get_fd = priv_rova_sub_dev_gpu_ops_get()->get_dmabuf_fd_cb;
    EXPECT_EQ(get_fd(gpu, static_cast<char*>(address) + 16, 16, &fd), ROVA_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(get_fd(gpu, address, page + 1, &fd), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(rova_soft_gpu_set_dmabuf_supported(gpu, false), ROVA_SUCCESS);
    EXPECT_EQ(get_fd(gpu, address, page, &fd), ROVA_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(fd, -1);
    const registration region = device->register_umem(address, page, read_write, page);
    EXPECT_EQ(rova_soft_gpu_close(gpu), ROVA_ERROR_IN_USE);
    EXPECT_EQ(rova_soft_gpu_free(gpu, address), ROVA_SUCCESS);
    EXPECT_EQ(device.read(region.second, 0, 1).first, ROVA_ERROR_IO_FAILED);
    device->deregister_umem(region.first);
    EXPECT_EQ(rova_soft_gpu_close(gpu), ROVA_SUCCESS);
}

TEST(soft_apx, is_reached_from_its_first_byte_to_its_last_while_it_is_open)
{
    constexpr uint64_t base = 0xFFFFFFFF00000000;
    const soft_device device;
    rova_apx* apx = nullptr;
    EXPECT_EQ(rova_soft_apx_open(device.m_dev, UINT64_MAX - 1, 1, &apx), ROVA_ERROR_INVALID_VALUE);
    ASSERT_EQ(rova_soft_apx_open(device.m_dev, base, 100, &apx), ROVA_SUCCESS);
    const priv_rova_sub_dev_apx_ops* const ops = priv_rova_sub_dev_apx_ops_get();
    uint32_t id = 0;
    uint64_t offset = 0;
    EXPECT_EQ(ops->get_umem_id_cb(apx, &id), ROVA_SUCCESS);
    EXPECT_EQ(ops->get_umem_base_offset_cb(apx, base + page - 1, &offset), ROVA_SUCCESS);
    EXPECT_EQ(offset, page - 1);
    EXPECT_EQ(ops->get_umem_base_offset_cb(apx, base + page, &offset), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(rova_soft_apx_write(apx, base + page - 1, "ab", 2), ROVA_ERROR_INVALID_VALUE);
    EXPECT_EQ(rova_platform_dev_close(device.m_dev), ROVA_ERROR_IN_USE);
    EXPECT_EQ(rova_soft_apx_close(apx), ROVA_SUCCESS);
    EXPECT_EQ(device.read(id, 0, 1).first, ROVA_ERROR_NOT_FOUND);
}

TEST(soft_device, does_not_reach_memory_that_nobody_else_may_read)
{
    const auto file = static_cast<int>(::syscall(SYS_memfd_secret, 0));
    if (file < 0 || ::ftruncate(file, static_cast<off_t>(page)) != 0) {
        GTEST_SKIP() << "this kernel has no secret memory";
    }
    void* const memory = ::mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    const soft_device device;
    const registration secret = device->register_umem(memory, page, read_write, page);
    EXPECT_EQ(device.read(secret.second, 0, 2), read_result(ROVA_ERROR_IO_FAILED, {0, 0}));
    EXPECT_EQ(device.write(secret.second, 0, "no"), ROVA_ERROR_IO_FAILED);
    device->deregister_umem(secret.first);
}

TEST(soft_device, ends_the_calls_of_a_thread_that_is_cancelled_in_them)
{
    const soft_device device;
    std::string memory = "memory";
    bool ended = false;
    std::thread([&] {
        ::pthread_cancel(::pthread_self());  // takes effect in the next call that allows it
        const registration region = device.add(memory);
        EXPECT_EQ(device.write(region.second, 6, "no"), ROVA_ERROR_INVALID_VALUE);  // is logged
        device->deregister_umem(region.first);
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        ended = true;
    }).join();
    EXPECT_TRUE(ended);
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
