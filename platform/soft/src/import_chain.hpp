/*
 * The way from an imported region to the memory behind it, through the registrations in between: a
 * region may have been imported from an import.
 */
#pragma once

#include <memory>
#include <vector>

#include "export_block.hpp"
#include "process_memory.hpp"

namespace soft {

class import_chain {
public:
    /** Follows a block to the memory. Everything on the way is untrusted, and is checked. */
    import_chain(const export_block& block, process_memories& memories);

    /** Throws unless every registration on the way still exists unchanged. */
    void verify() const;

    /**
     * Moves bytes of the region, or throws. The bytes that a read gives were the region's while
     * every registration on the way existed; a write begins while they exist.
     */
    void read(uint64_t offset, void* data, size_t size) const;
    void write(uint64_t offset, const void* data, size_t size) const;

    /** The block that was imported. */
    const export_block& source() const { return m_hops.front().block; }

    /** The memory of the last registration on the way. */
    const region& memory() const { return origin().record.memory; }

private:
    struct hop {
        export_block block;
        umem_record record;
        std::shared_ptr<const process_memory> process;

        void verify() const;
        bool is_found_by_thread() const noexcept;
    };

    static hop visit(const export_block& block, process_memories& memories);
    void add(const hop& next);
    bool read_at_once(uint64_t offset, void* data, size_t size) const;
    [[noreturn]] void fail_to_move(platform::direction way, uint64_t address, size_t size,
                                   int error) const;

    const hop& origin() const { return m_hops.back(); }

    std::vector<hop> m_hops;
};

}  // namespace soft
