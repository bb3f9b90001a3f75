/*
 * One registration.
 */
#pragma once

#include <optional>
#include <shared_mutex>

#include "device_abstraction/itlox_adapter.hpp"
#include "export_block.hpp"
#include "import_chain.hpp"
#include "mapping.hpp"
#include "process_memory.hpp"

/**
 * Memory that a device may reach. Its address is the handle that the component holds, and where
 * importers look for the record; so it never moves.
 *
 * Transfers share the lock and ending takes it alone: once a registration has ended, no transfer
 * is under way and none can start.
 */
struct tlox_umem {
public:
    /** Memory of this process that somebody else keeps. */
    tlox_umem(uint64_t address, size_t size, uint32_t access_flags);

    /** A dma-buf, mapped for this registration. */
    tlox_umem(soft::dmabuf_range range, size_t size, uint32_t access_flags);

    /** Memory that another registration holds. */
    explicit tlox_umem(soft::import_chain sources);

    tlox_umem(const tlox_umem&) = delete;
    tlox_umem& operator=(const tlox_umem&) = delete;
    ~tlox_umem();

    /** Moves bytes of the region, or throws. A read that fails once begun leaves zeros. */
    void transfer(soft::direction way, uint64_t offset, void* data, size_t size);

    /** Makes the registration visible to importers. */
    soft::export_block export_block();

    /** Ends the registration for the device and for all importers. */
    void end() noexcept;

private:
    void check_transfer(soft::direction way, uint64_t offset, size_t size) const;
    void move_piece(soft::direction way, uint64_t offset, void* data, size_t size) const;
    void verify_sources() const;

    std::shared_mutex m_mutex;
    bool m_ended = false;
    soft::umem_record m_record = {};
    std::optional<soft::dmabuf_range> m_dmabuf;
    std::optional<soft::import_chain> m_sources;
};
