/**
 * @file
 * @defgroup types Basic types (rova_types.h)
 * @ingroup public_api
 *
 * Basic types of the SDK: the fixed-width integers, and the objects that callers only ever hold
 * pointers to.
 *
 * @{
 */
#ifndef ROVA_TYPES_H
#define ROVA_TYPES_H

#if !defined(__x86_64__) || !defined(__LP64__) || !defined(__linux__)
#error "rova runs on Linux on x86-64 only"
#endif

#include <stddef.h>
#include <stdint.h>

/** A function that the shared library exports. */
#define ROVA_API __attribute__((visibility("default")))

/**
 * A function whose form may still change in any minor version. Define ROVA_WARN_EXPERIMENTAL
 * before the first include to have the compiler point at each use.
 */
#ifdef ROVA_WARN_EXPERIMENTAL
#define ROVA_EXPERIMENTAL ROVA_API __attribute__((deprecated("experimental API: it may change")))
#else
#define ROVA_EXPERIMENTAL ROVA_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct rova_dev;  /**< a network device, opened and closed by the device layer */
struct rova_gpu;  /**< a GPU, opened and closed by the GPU layer */
struct rova_apx;  /**< a context on the network card's accelerator, opened by its layer */
struct rova_umem; /**< a registered memory region; see rova_umem.h */

#ifdef __cplusplus
}
#endif

/** @} */

#endif
