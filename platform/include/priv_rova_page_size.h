/**
 * @file
 * @defgroup platform_page_size Page sizes (priv_rova_page_size.h)
 * @ingroup platform_interfaces
 *
 * Page sizes, in bytes.
 *
 * @{
 */
#ifndef PRIV_ROVA_PAGE_SIZE_H
#define PRIV_ROVA_PAGE_SIZE_H

#include "rova_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The page size of the system. Callable from any thread; cannot fail.
 *
 * @return a power of two.
 */
ROVA_API size_t priv_rova_get_page_size(void);

/**
 * The granularity of the accelerator's memory, which has no pages of the system's size.
 *
 * @return 64.
 */
static inline size_t priv_rova_get_apx_page_size(void)
{
    return 64;
}

#ifdef __cplusplus
}
#endif

/** @} */

#endif
