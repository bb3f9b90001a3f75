/**
 * @file
 * @defgroup platform_gpu GPU layer (priv_rova_sub_dev_gpu.h)
 * @ingroup platform_interfaces
 *
 * What the GPU layer offers to other components.
 *
 * @{
 */
#ifndef PRIV_ROVA_SUB_DEV_GPU_H
#define PRIV_ROVA_SUB_DEV_GPU_H

#include "rova_error.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Callbacks of the GPU layer. They report by code and do not throw. */
struct priv_rova_sub_dev_gpu_ops {
    /**
     * A dma-buf whose offset 0 is the GPU address asked for and which covers the whole range. The
     * descriptor stays the GPU layer's: the caller never closes it. Any failure means that the
     * range has to be registered by its address instead.
     */
    rova_error_t (*get_dmabuf_fd_cb)(struct rova_gpu* gpu, void* address, size_t size,
                                     int* dmabuf_fd);
};

/**
 * The GPU layer's callbacks.
 *
 * @return the callbacks, constant and complete, or NULL when the layer is not there.
 */
ROVA_API const struct priv_rova_sub_dev_gpu_ops* priv_rova_sub_dev_gpu_ops_get(void);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
