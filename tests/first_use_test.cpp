/*
 * The first use of the platform in a process, with every one of its allocations failing. The test
 * itself never uses the platform: each try runs in a fresh child process.
 */
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "priv_rova_umem_api.h"
#include "support/allocation_failure.hpp"
#include "support/soft_device.hpp"

namespace {

using namespace support;

enum outcome { done = 10, no_memory, wrong };

/** Uses everything, and ends it; a call that ends something must not fail. */
outcome share(allocation_trap& trap)
{
    std::string memory = "memory";
    rova_dev* dev = nullptr;
    priv_rova_umem* regions[3] = {};
    rova_gpu* gpu = nullptr;
    rova_apx* apx = nullptr;
    void* address = nullptr;
    int source = 0;
    void* bytes = nullptr;
    size_t length = 0;
    const int file = ::memfd_create("test", MFD_CLOEXEC);
    rova_error_t code = ::ftruncate(file, 8) == 0 ? ROVA_SUCCESS : ROVA_ERROR_UNKNOWN;
    const auto step = [&](const auto& call) { code = code == ROVA_SUCCESS ? call() : code; };
    trap.arm();
    step([&] { return rova_soft_dev_open(&dev); });
    step([&] {
        return priv_rova_umem_create_pg_sz(dev, memory.data(), 6, 1, read_write, &regions[0]);
    });
    step([&] { return priv_rova_umem_create_dmabuf(dev, nullptr, 0, 8, 1, file, 3, &regions[1]); });
    step([&] { return priv_rova_umem_export(regions[0], &bytes, &length); });
    step([&] {
        return priv_rova_umem_create_from_export(dev, bytes, length, memory.data(), &regions[2]);
    });
    step([&] { return rova_soft_gpu_open(&gpu); });
    step([&] { return rova_soft_gpu_alloc(gpu, 1, &address); });
    step([&] { return rova_soft_apx_open(dev, 0, 1, &apx); });
    step([&] { return rova_log_register_source("TEST", &source); });
    if ((address != nullptr && rova_soft_gpu_free(gpu, address) != ROVA_SUCCESS) ||
        (gpu != nullptr && rova_soft_gpu_close(gpu) != ROVA_SUCCESS) ||
        (apx != nullptr && rova_soft_apx_close(apx) != ROVA_SUCCESS))
    {
        return wrong;
    }
    for (priv_rova_umem* const region : regions) {
        if (region != nullptr && priv_rova_umem_destroy(region) != ROVA_SUCCESS) {
            return wrong;
        }
    }
    if (dev != nullptr && rova_platform_dev_close(dev) != ROVA_SUCCESS) {
        return wrong;
    }
    trap.disarm();
    return code == ROVA_SUCCESS ? done : code == ROVA_ERROR_NO_MEMORY ? no_memory : wrong;
}

TEST(first_use, may_run_out_of_memory_anywhere)
{
    if (!allocations_can_fail) {
        GTEST_SKIP() << "a sanitizer owns the allocator";
    }
    for (const failing mode : {failing::once, failing::from_then_on}) {
        bool struck = true;
        int failures = 0;
        for (size_t n = 1; struck; ++n) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                allocation_trap trap(n, mode);
                const outcome result = share(trap);
                ::_exit(trap.struck() ? result : 2 * result);
            }
            int status = 0;
            ASSERT_EQ(::waitpid(pid, &status, 0), pid);
            ASSERT_TRUE(WIFEXITED(status)) << "killed when allocation " << n << " fails";
            struck = WEXITSTATUS(status) != 2 * done;
            failures += WEXITSTATUS(status) == no_memory ? 1 : 0;
            EXPECT_TRUE(!struck || WEXITSTATUS(status) == no_memory || WEXITSTATUS(status) == done)
                << WEXITSTATUS(status) << " when allocation " << n << " fails";
        }
        EXPECT_GT(failures, 10);
    }
}

}  // namespace
