/*
 * What the kernel says about the memory of this process.
 */
#pragma once

#include <cstddef>
#include <cstdint>

namespace soft {

/** Throws unless the whole range is mapped, everywhere with the rights that the flags ask for. */
void check_mapped(uint64_t address, size_t size, uint32_t access_flags);

}  // namespace soft
