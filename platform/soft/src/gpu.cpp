/*
 * The software GPU: memory with an address and a dma-buf.
 */
#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "device_memory.hpp"
#include "failure.hpp"
#include "opener.hpp"
#include "priv_rova_sub_dev_gpu.h"
#include "rova_soft_platform.h"

/** GPU memory is known by its address, which is where the process sees it. */
struct rova_gpu {
    std::mutex m_mutex;
    std::map<const void*, soft::device_memory> m_allocations;
    bool m_dmabuf_supported = true;
    const platform::opener m_opener;
};

namespace soft {
namespace {

std::atomic<bool> layer_present{true};

/** A refusal here is not a failure: the caller then registers the range by its address. */
rova_error_t get_dmabuf_fd(rova_gpu* gpu, void* address, size_t size, int* dmabuf_fd)
{
    if (gpu == nullptr || dmabuf_fd == nullptr || size == 0) {
        return ROVA_ERROR_INVALID_VALUE;
    }
    if (!gpu->m_opener.is_this_process()) {
        return ROVA_ERROR_BAD_STATE;
    }
    const std::lock_guard<std::mutex> lock(gpu->m_mutex);
    // A dma-buf begins where its allocation begins; an address inside it has none of its own.
    const auto found = gpu->m_allocations.find(address);
    if (!gpu->m_dmabuf_supported || found == gpu->m_allocations.end()) {
        return ROVA_ERROR_NOT_SUPPORTED;
    }
    if (size > found->second.size()) {
        return ROVA_ERROR_INVALID_VALUE;
    }
    *dmabuf_fd = found->second.fd();
    return ROVA_SUCCESS;
}

void check_gpu(const rova_gpu* gpu, platform::location where)
{
    platform::check_not_null(gpu, "gpu", where);
    gpu->m_opener.check("GPU", where);
}

constexpr priv_rova_sub_dev_gpu_ops ops = {get_dmabuf_fd};

}  // namespace
}  // namespace soft

const priv_rova_sub_dev_gpu_ops* priv_rova_sub_dev_gpu_ops_get(void)
{
    return soft::layer_present.load() ? &soft::ops : nullptr;
}

rova_error_t rova_soft_gpu_open(rova_gpu** gpu)
{
    return platform::guarded(ROVA_HERE, "Failed to open a GPU", [=](platform::location here) {
        platform::check_not_null(gpu, "gpu", here);
        *gpu = std::make_unique<rova_gpu>().release();
    });
}

rova_error_t rova_soft_gpu_close(rova_gpu* gpu)
{
    return platform::guarded(ROVA_HERE, "Failed to close the GPU", [=](platform::location here) {
        soft::check_gpu(gpu, here);
        {
            const std::lock_guard<std::mutex> lock(gpu->m_mutex);
            if (!gpu->m_allocations.empty()) {
                platform::fail(ROVA_ERROR_IN_USE, here,
                               "%zu allocations of the GPU have not been freed",
                               gpu->m_allocations.size());
            }
        }
        const std::unique_ptr<rova_gpu> closed(gpu);
    });
}

rova_error_t rova_soft_gpu_alloc(rova_gpu* gpu, size_t size, void** address)
{
    return platform::guarded(ROVA_HERE, "Failed to allocate GPU memory",
                             [=](platform::location here) {
                                 soft::check_gpu(gpu, here);
                                 platform::check_not_null(address, "address", here);
                                 soft::device_memory memory("rova_soft_gpu", size);
                                 void* const begin = memory.address();
                                 const std::lock_guard<std::mutex> lock(gpu->m_mutex);
                                 gpu->m_allocations.emplace(begin, std::move(memory));
                                 *address = begin;
                             });
}

rova_error_t rova_soft_gpu_free(rova_gpu* gpu, void* address)
{
    return platform::guarded(ROVA_HERE, "Failed to free GPU memory", [=](platform::location here) {
        soft::check_gpu(gpu, here);
        const std::lock_guard<std::mutex> lock(gpu->m_mutex);
        if (gpu->m_allocations.erase(address) == 0) {
            platform::fail(ROVA_ERROR_NOT_FOUND, here, "no allocation of the GPU begins at %p",
                           address);
        }
    });
}

rova_error_t rova_soft_gpu_set_dmabuf_supported(rova_gpu* gpu, bool supported)
{
    return platform::guarded(ROVA_HERE, "Failed to set up the GPU", [=](platform::location here) {
        soft::check_gpu(gpu, here);
        const std::lock_guard<std::mutex> lock(gpu->m_mutex);
        gpu->m_dmabuf_supported = supported;
    });
}

void rova_soft_gpu_layer_set_present(bool present)
{
    soft::layer_present.store(present);
}
