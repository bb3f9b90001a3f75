// Helpers that the fuzz targets share.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "rova_log.h"
#include "rova_soft_platform.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/** Ends the process unless a condition holds, so that the fuzzer keeps the input. */
inline void require(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

/** Drops the log: nearly every input is refused, and each refusal is logged. */
inline const bool is_quiet = rova_platform_log_set_level(ROVA_LOG_LEVEL_DISABLE) == ROVA_SUCCESS;
