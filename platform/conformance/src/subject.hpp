/*
 * What the checks work with: memory, devices, and a way to try what may be refused.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "check.hpp"
#include "rova_dev.hpp"

namespace rova::conformance {

using device_abstraction::itlox_adapter;
using registration = std::pair<tlox_umem*, uint32_t>;
using bytes = std::vector<uint8_t>;

/** The system's page size, which every check registers in. */
size_t page_size();

/** Memory whose last byte is followed by a page that nobody can touch. */
class fenced_memory {
public:
    explicit fenced_memory(size_t size);
    /** A copy of a block; null for an empty one. */
    explicit fenced_memory(const bytes& content);
    ~fenced_memory();
    fenced_memory(const fenced_memory&) = delete;
    fenced_memory& operator=(const fenced_memory&) = delete;

    uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }

private:
    size_t m_size;
    size_t m_mapped;
    void* m_mapping = nullptr;
    uint8_t* m_data = nullptr;
};

/** What came of a call that may be refused. */
struct attempt {
    std::optional<registration> made;
    std::optional<rova_error_t> code; /**< that of a rova::exception */
    std::string refusal;
};

/** Tries. A null handle, or a refusal that cannot be told from success, is a violation. */
attempt try_to(const std::function<registration()>& call);

/** An open device. */
class device {
public:
    explicit device(const device_layer& layer);
    ~device();
    device(const device&) = delete;
    device& operator=(const device&) = delete;

    rova_dev* get() const { return m_dev; }

    /** The object adapter, which is there. */
    std::shared_ptr<itlox_adapter> adapter() const;

    /** Registers memory, for all access. */
    registration add(void* address, size_t size) const;
    registration add(const fenced_memory& memory) const;

    bytes export_block(const registration& made) const;
    attempt try_import(const bytes& block) const;
    registration import_block(const bytes& block) const;

    /** Ends a registration, which works. */
    void end(const registration& made) const;

    /** Refusals of a handle that is none; `what` says which. */
    void refuses_to_deregister(tlox_umem* umem, const char* what) const;
    void refuses_to_export(tlox_umem* umem, const char* what) const;
    void refuses_to_release(tlox_umem* umem, const char* what) const;

    /** Whether memory can be read or written through the device. */
    bool reads(uint32_t id, uint64_t offset, bytes& data) const;
    bool writes(uint32_t id, uint64_t offset, const bytes& data) const;

    /** Closes the device, which works. */
    void close();

private:
    const device_layer& m_layer;
    rova_dev* m_dev;
};

}  // namespace rova::conformance
