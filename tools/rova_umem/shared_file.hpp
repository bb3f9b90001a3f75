/*
 * A file that is registered with a device, and the memory under the registration.
 */
#pragma once

#include <memory>
#include <string>

#include "commands.hpp"
#include "files.hpp"
#include "sdk.hpp"

namespace tool {

/** What all files that one command shares are registered with. */
struct sharing_devices {
    device_ptr network;
    gpu_ptr gpu;  ///< for GPU memory only
};

/** A file of at least one byte, and its registration. Members end in the reverse order. */
class shared_file {
public:
    /** Opens the file. Anything but a regular file is refused. */
    shared_file(std::string path, const options& given);

    /** Loads the file into memory of the kind that the options name, and registers it. */
    void register_with(const sharing_devices& devices);

    byte_vector export_descriptor() const { return export_region(m_region.get()); }
    void deregister();

    const std::string& path() const { return m_path; }
    uint64_t size() const { return m_size; }
    region_facts facts() const { return region_facts(m_region.get()); }

private:
    void find_size();
    void load(uint8_t* memory) const;

    std::string m_path;
    std::string m_kind;
    bool m_writable;
    unique_fd m_fd;
    uint64_t m_size = 0;
    byte_vector m_read_early;  ///< the bytes of a file that does not know its size
    mapping m_host;
    gpu_memory m_gpu_bytes;
    region_ptr m_region;
};

}  // namespace tool
