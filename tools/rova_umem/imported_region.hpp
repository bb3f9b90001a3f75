/*
 * A region that another process shares, behind a device of this one.
 */
#pragma once

#include <optional>
#include <string>

#include "commands.hpp"
#include "descriptor.hpp"
#include "rova_soft_platform.h"
#include "sdk.hpp"

namespace tool {

class imported_region {
public:
    /** Reads the descriptor, opens the device that it takes, and imports the region. */
    imported_region(std::string descriptor_path, const options& given);

    /** The same with a descriptor that has been read and examined already. */
    imported_region(std::string descriptor_path, const byte_vector& bytes,
                    const descriptor_report& report, const options& given);

    /** Read from the descriptor: the library reports 32 bits of it only. */
    uint64_t size() const { return m_size; }
    void read(uint64_t offset, void* data, size_t size) const;
    void write(uint64_t offset, const void* data, size_t size) const;
    void release();

private:
    void check_with_advice(rova_error_t code, const std::string& could_not) const;
    failure with_advice(const sdk_failure& error) const;
    failure with_advice_for_lost(const sdk_failure& error) const;

    std::string m_path;
    device_ptr m_device;
    region_ptr m_region;
    uint32_t m_id = 0;
    uint64_t m_size = 0;
    std::optional<rova_soft_block_info> m_process;  ///< of a software device
    bool m_writable = false;
    bool m_is_damaged = false;
};

}  // namespace tool
