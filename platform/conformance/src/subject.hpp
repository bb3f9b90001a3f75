/*
 * What the checks work with: memory, devices, and calls that may be refused.
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

/** The system's page size, which the checks register with. */
size_t page_size();

/** Memory whose last byte is followed by a page without any access. */
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

    void fill(uint8_t value) const;

    /** Whether each byte of a range has the value. */
    bool holds(uint8_t value, size_t offset, size_t size) const;
    bool holds(uint8_t value) const { return holds(value, 0, m_size); }

private:
    size_t m_size;
    size_t m_mapped;
    void* m_mapping = nullptr;
    uint8_t* m_data = nullptr;
};

/** The name of a code, even if the layer gives none. */
std::string name_of(rova_error_t code);

/** The result of a call that may be refused. */
struct attempt {
    std::optional<registration> made;
    std::optional<rova_error_t> code; /**< that of a rova::exception */
    std::string refusal;              /**< what was thrown, as a text */
};

/** Makes the call. A null handle, or a refusal with ROVA_SUCCESS, is a violation. */
attempt try_to(const std::function<registration()>& call);

/** Ends the check as not applicable when memory cannot be read and written through the device. */
void need_transfers(const device_layer& layer);
bool can_transfer(const device_layer& layer);

/** An open device. */
class device {
public:
    explicit device(const device_layer& layer);
    ~device();
    device(const device&) = delete;
    device& operator=(const device&) = delete;

    rova_dev* get() const { return m_dev; }

    /** The object adapter; a violation if there is none. */
    std::shared_ptr<itlox_adapter> adapter() const;

    attempt try_add(void* address, size_t size, uint32_t access_flags) const;
    attempt try_add_dmabuf(int number, size_t offset, size_t size) const;

    /** Registers memory, with all access unless flags are given. A refusal is a violation. */
    registration add(void* address, size_t size, uint32_t access_flags) const;
    registration add(void* address, size_t size) const;
    registration add(const fenced_memory& memory) const;

    bytes export_block(const registration& made) const;
    attempt try_import(const bytes& block) const;
    registration import_block(const bytes& block) const;

    /** Ends a registration. A failure is a violation. */
    void end(const registration& made) const;

    /** Requires that a handle that is not live is refused; `what` describes it. */
    void require_deregister_refused(tlox_umem* umem, const char* what) const;
    void require_export_refused(tlox_umem* umem, const char* what) const;
    void require_release_refused(tlox_umem* umem, const char* what) const;

    /** Whether memory can be read or written through the device. */
    bool reads(uint32_t id, uint64_t offset, bytes& data) const;
    bool writes(uint32_t id, uint64_t offset, const bytes& data) const;

    /** Whether a byte can be read, and has the value. */
    bool reads_byte(uint32_t id, uint64_t offset, uint8_t value) const;

    /** Closes the device. A failure is a violation. */
    void close();

private:
    const device_layer& m_layer;
    rova_dev* m_dev = nullptr;
};

}  // namespace rova::conformance
