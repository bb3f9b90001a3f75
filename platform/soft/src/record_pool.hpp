/*
 * Keeps the records of the regions that a process exports.
 *
 * An importer must be able to distinguish a record from bytes that an attacker has planted in the
 * exporter's memory. So records lie in mappings of a shape that nothing else creates: private and
 * writable, beginning at the second page of a sealed memory file with a special name, and preceded
 * by that file's first page, which is mapped without any access. Memory that a program receives
 * from another one through a descriptor is mapped shared or read-only, and without such a page
 * before it.
 *
 * A forked child does not inherit the mappings, so none of the parent's exports is found in it.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "export_block.hpp"
#include "mapping.hpp"
#include "opener.hpp"
#include "process_memory.hpp"

namespace soft {

/** The name of the memory files, as the kernel shows it in a memory map. */
constexpr const char* record_file_name = "rova_soft_records";

/** Every record begins at a multiple of this from the start of its mapping. */
constexpr size_t record_slot_size = 128;
static_assert(sizeof(umem_record) <= record_slot_size);

/** The records of one device. Safe from any number of threads. */
class record_pool {
public:
    record_pool() = default;
    record_pool(const record_pool&) = delete;
    record_pool& operator=(const record_pool&) = delete;
    ~record_pool();

    /**
     * Creates a record for a registration of this process and returns its address. Throws if memory
     * runs out, and in a child of the process that created the pool.
     */
    const umem_record* add(const region& memory, const export_block& source);

    /** Wipes a record. Allocates nothing. */
    void remove(const umem_record* record) noexcept;

private:
    void add_chunk();

    std::mutex m_mutex;
    platform::opener m_opener;
    std::optional<process_name> m_process;
    std::vector<platform::mapping> m_chunks;
    std::vector<umem_record*> m_free; /**< its capacity is enough for all records */
    size_t m_slots = 0;
};

}  // namespace soft
