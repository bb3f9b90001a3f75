/**
 * @file
 * @defgroup platform_apx Accelerator layer (priv_rova_sub_dev_apx.h)
 * @ingroup platform_interfaces
 *
 * What the accelerator layer offers to other components.
 *
 * @{
 */
#ifndef PRIV_ROVA_SUB_DEV_APX_H
#define PRIV_ROVA_SUB_DEV_APX_H

#include "rova_error.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Callbacks of the accelerator layer. They report by code and do not throw. */
struct priv_rova_sub_dev_apx_ops {
    /** The device that an accelerator context runs on; never NULL. */
    struct rova_dev* (*get_dev_cb)(const struct rova_apx* apx);

    /** The physical-function device of an accelerator context. */
    struct rova_dev* (*get_pf_dev_cb)(const struct rova_apx* apx);

    /** The umem id under which the accelerator's memory is registered. */
    rova_error_t (*get_umem_id_cb)(const struct rova_apx* apx, uint32_t* umem_id);

    /** Where an accelerator address lies inside that umem, in bytes. */
    rova_error_t (*get_umem_base_offset_cb)(const struct rova_apx* apx, uint64_t address,
                                            uint64_t* base_offset);
};

/**
 * The accelerator layer's callbacks.
 *
 * @return the callbacks, constant and complete, or NULL when the layer is not there.
 */
ROVA_API const struct priv_rova_sub_dev_apx_ops* priv_rova_sub_dev_apx_ops_get(void);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
