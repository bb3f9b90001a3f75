/*
 * Checks whether an address of a process lies where a record pool keeps its records.
 */
#pragma once

#include <cstdint>

#include "process_memory.hpp"

namespace soft {

/**
 * Throws ROVA_ERROR_NOT_FOUND unless a slot of a record pool begins at the address, according to
 * the process's memory map.
 */
void check_record_mapping(const process_directory& process, uint64_t address);

}  // namespace soft
