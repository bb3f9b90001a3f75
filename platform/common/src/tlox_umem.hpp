/*
 * One registration, whatever kind of device it is with.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "device_abstraction/itlox_adapter.hpp"
#include "gate.hpp"

namespace platform {

enum class direction { read, write };

/** "read" or "write". */
const char* name_of(direction way);

}  // namespace platform

/**
 * Memory that a device may access. The address of this object is the handle that the component
 * holds.
 *
 * Once a registration has ended, no transfer is under way and none can start. Ending waits only for
 * transfers that have begun; exporting waits for none. Each kind of device derives its
 * registrations from this and implements the transfers.
 */
struct tlox_umem {
public:
    tlox_umem(const tlox_umem&) = delete;
    tlox_umem& operator=(const tlox_umem&) = delete;
    virtual ~tlox_umem() = default;

    /** Moves bytes of the region, or throws. */
    void read(uint64_t offset, void* data, size_t size);
    void write(uint64_t offset, const void* data, size_t size);

    /** Makes the registration visible to importers, and returns the block that they need. */
    std::vector<uint8_t> publish();

    /** Ends the registration for the device and for all importers. */
    void end() noexcept;

    size_t size() const { return m_size; }
    uint32_t access_flags() const { return m_access_flags; }

protected:
    tlox_umem(size_t size, uint32_t access_flags);

private:
    /**
     * Moves bytes; the range and the access flags have been checked. A read that fails after it has
     * changed `data` leaves all of it zero.
     */
    virtual void read_bytes(uint64_t offset, void* data, size_t size) = 0;
    virtual void write_bytes(uint64_t offset, const void* data, size_t size) = 0;

    /** Called for each export, one at a time. Transfers may be under way. */
    virtual std::vector<uint8_t> make_block() = 0;

    /** Called once, when no transfer is under way and none can start. */
    virtual void withdraw() noexcept = 0;

    void check_transfer(platform::direction way, const platform::visit& transfer, uint64_t offset,
                        size_t size) const;

    platform::gate m_transfers;
    std::mutex m_export_mutex;
    bool m_ended = false;
    size_t m_size;
    uint32_t m_access_flags;
};
