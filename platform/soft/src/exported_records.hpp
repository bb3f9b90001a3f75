/*
 * Which records of this process importers may use.
 *
 * A block from outside may name this very process and any address in it. Another process's records
 * are told by their magic and token alone; of its own, this process knows where they are.
 */
#pragma once

#include <cstdint>

#include "export_block.hpp"

namespace soft {

/** Throws std::bad_alloc. */
void add_exported_record(const umem_record& record);

void remove_exported_record(const umem_record& record) noexcept;

bool is_exported_record(uint64_t address);

}  // namespace soft
