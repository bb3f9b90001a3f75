/*
 * The way from an imported region to the memory behind it, over every registration in between.
 */
#pragma once

#include <sys/types.h>

#include <vector>

#include "export_block.hpp"

namespace soft {

class import_chain {
public:
    /** Follows a block to the memory. What it leads over comes from outside and is checked. */
    explicit import_chain(const export_block& block);

    /** Throws unless every registration on the way is still there, as it was. */
    void verify() const;

    /** The block that was imported. */
    const export_block& source() const { return m_hops.front().block; }

    /** The registration that holds the memory, and the process that it is in. */
    const umem_record& origin() const { return m_hops.back().record; }
    pid_t origin_pid() const;

private:
    struct hop {
        export_block block;
        umem_record record;
    };
    std::vector<hop> m_hops;
};

/** Reads a block out of bytes from outside; throws when they are none. */
export_block parse_export_block(const uint8_t* bytes, size_t size);

}  // namespace soft
