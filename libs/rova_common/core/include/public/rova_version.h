/**
 * @file
 * @defgroup version Version (rova_version.h)
 * @ingroup public_api
 *
 * The version of the library: of the header at compile time, of the library at run time.
 *
 * The numbers follow semantic versioning; CONTRIBUTING.md says which change raises which number.
 *
 * @{
 */
#ifndef ROVA_VERSION_H
#define ROVA_VERSION_H

#include "rova_types.h"

/** Major number of the header's version. */
#define ROVA_VERSION_MAJOR 0
/** Minor number of the header's version. */
#define ROVA_VERSION_MINOR 1
/** Patch number of the header's version. */
#define ROVA_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The version of the library that the program runs with, for example "0.1.0". It may differ from
 * the numbers above, which are those of the headers that the program was compiled with.
 *
 * @return a text with static lifetime; never NULL. Callable from any thread.
 */
ROVA_API const char* rova_version_get(void);

#ifdef __cplusplus
}
#endif

/** @} */

#endif
