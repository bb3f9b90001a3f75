/**
 * @file
 * @defgroup priv_umem The region and its bridge (priv_rova_umem.hpp)
 * @ingroup internal_api
 *
 * The memory region object, and the bridge through which it operates its device.
 *
 * The object's methods are inline, so that every component of the SDK can use it. Every operation
 * on the device goes through priv_rova_umem_bridge, which the library exports.
 *
 * @{
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "priv_rova_log.h"
#include "priv_rova_page_size.h"
#include "priv_rova_sub_dev_apx.h"
#include "rova_exception.hpp"
#include "rova_types.h"

struct priv_rova_umem;
struct tlox_umem;

namespace core {
class priv_rova_importer;
}

/** What a region asks its bridge to do. */
enum priv_rova_umem_bridge_cmd : uint32_t {
    PRIV_ROVA_UMEM_BRIDGE_CMD_INIT = 0,        /**< register host memory */
    PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_DMABUF = 1, /**< register a dma-buf: init_dmabuf_data */
    PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_APX = 2,    /**< look accelerator memory up: init_apx_data */
    PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_FROM_EXPORT = 3, /**< import: init_from_export_data */
    PRIV_ROVA_UMEM_BRIDGE_CMD_UNINIT = 4,           /**< deregister */
    PRIV_ROVA_UMEM_BRIDGE_CMD_EXPORT = 5,           /**< build the export descriptor */
    PRIV_ROVA_UMEM_BRIDGE_CMD_RELEASE = 6           /**< hand the registration to the device */
};

/** The arguments of a command; the caller fills the member that belongs to the command. */
union priv_rova_umem_bridge_cmd_data {
    struct {
        int dmabuf_fd;
        size_t dmabuf_offset;
    } init_dmabuf_data;

    struct {
        struct rova_apx* apx;
    } init_apx_data;

    struct {
        const void* export_desc;
        size_t export_desc_len;
    } init_from_export_data;
};

extern "C" {

/**
 * Carries out one command for a region.
 *
 * @param umem  the region; not null.
 * @param cmd   the command.
 * @param data  what commands 1, 2 and 3 need; ignored by the others.
 * @return
 *  - ROVA_ERROR_UNEXPECTED: no such command;
 *  - ROVA_ERROR_INVALID_VALUE: `data` is null and the command needs it;
 *  - otherwise the result of the command.
 *
 * A failed command leaves the region as it was, with two exceptions: the umem id of accelerator
 * memory may have been written, and after a failed import the region can only be destroyed.
 */
ROVA_API rova_error_t priv_rova_umem_bridge(priv_rova_umem* umem, priv_rova_umem_bridge_cmd cmd,
                                            priv_rova_umem_bridge_cmd_data* data);
}

/**
 * A range of memory that is registered with a device.
 *
 * Owns its registration (the driver's object behind m_handle) until it is deregistered or released,
 * and its export descriptor. Refers to its device, which outlives it. One thread at a time.
 */
struct priv_rova_umem {
public:
    /** An empty region, to be filled by one of the init functions. */
    priv_rova_umem() = default;

    /** Registers host memory in pages of the given size. */
    priv_rova_umem(const rova_dev& dev, void* address, size_t size, uint32_t access_flags,
                   size_t page_size)
    {
        require(init(dev, address, size, access_flags, page_size), ROVA_HERE);
    }

    /** Registers host memory in pages of the system's size. */
    priv_rova_umem(const rova_dev& dev, void* address, size_t size, uint32_t access_flags)
    {
        require(init(dev, address, size, access_flags), ROVA_HERE);
    }

    /** Registers a range of a dma-buf, whose descriptor stays the caller's. */
    priv_rova_umem(const rova_dev& dev, int dmabuf_fd, void* address, size_t dmabuf_offset,
                   size_t size, uint32_t access_flags, size_t page_size)
    {
        require(init(dev, dmabuf_fd, address, dmabuf_offset, size, access_flags, page_size),
                ROVA_HERE);
    }

    /** Makes a region over memory of the accelerator, which is registered already. */
    priv_rova_umem(rova_apx& apx, uint64_t address, size_t size, uint32_t access_flags)
    {
        require(init(apx, address, size, access_flags), ROVA_HERE);
    }

    /** Registers memory that another process or context has exported. */
    priv_rova_umem(const rova_dev& dev, const void* export_desc, size_t export_desc_len,
                   void* address)
    {
        require(init(dev, export_desc, export_desc_len, address), ROVA_HERE);
    }

    priv_rova_umem(const priv_rova_umem&) = delete;
    priv_rova_umem(priv_rova_umem&&) = delete;
    priv_rova_umem& operator=(const priv_rova_umem&) = delete;
    priv_rova_umem& operator=(priv_rova_umem&&) = delete;

    /** Deregisters what is still registered; a failure is only logged. */
    virtual ~priv_rova_umem() { dereg(); }

    virtual void* get_buffer() const { return m_address; }
    virtual size_t get_page_size() const { return m_page_size; }

    uint32_t get_id() const { return m_id; }
    size_t get_size() const { return m_size; }
    uint64_t get_base_offset() const { return m_base_offset; }
    uint32_t get_access_flags() const { return m_access_flags; }

    // These do the constructors' work on an empty region. A region that is registered must not be
    // initialised again, as it would lose its registration. After a failed init the region can only
    // be destroyed.

    rova_error_t init(const rova_dev& dev, void* address, size_t size, uint32_t access_flags,
                      size_t page_size)
    {
        set_range(&dev, address, size, access_flags, page_size);
        return priv_rova_umem_bridge(this, PRIV_ROVA_UMEM_BRIDGE_CMD_INIT, nullptr);
    }

    rova_error_t init(const rova_dev& dev, void* address, size_t size, uint32_t access_flags)
    {
        return init(dev, address, size, access_flags, priv_rova_get_page_size());
    }

    rova_error_t init(const rova_dev& dev, int dmabuf_fd, void* address, size_t dmabuf_offset,
                      size_t size, uint32_t access_flags, size_t page_size)
    {
        set_range(&dev, address, size, access_flags, page_size);
        priv_rova_umem_bridge_cmd_data data{};
        data.init_dmabuf_data = {dmabuf_fd, dmabuf_offset};
        return priv_rova_umem_bridge(this, PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_DMABUF, &data);
    }

    rova_error_t init(rova_apx& apx, uint64_t address, size_t size, uint32_t access_flags)
    {
        // Without an accelerator layer there is no device to ask for. The bridge detects this as
        // well, and reports it.
        const priv_rova_sub_dev_apx_ops* ops = priv_rova_sub_dev_apx_ops_get();
        set_range(ops != nullptr ? ops->get_dev_cb(&apx) : nullptr,
                  reinterpret_cast<void*>(address), size, access_flags,
                  priv_rova_get_apx_page_size());
        priv_rova_umem_bridge_cmd_data data{};
        data.init_apx_data = {&apx};
        return priv_rova_umem_bridge(this, PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_APX, &data);
    }

    rova_error_t init(const rova_dev& dev, const void* export_desc, size_t export_desc_len,
                      void* address)
    {
        m_dev = &dev;
        m_address = address;
        priv_rova_umem_bridge_cmd_data data{};
        data.init_from_export_data = {export_desc, export_desc_len};
        return priv_rova_umem_bridge(this, PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_FROM_EXPORT, &data);
    }

    /** Ends the registration, if there is one. On failure it lives on and can be ended later. */
    rova_error_t dereg()
    {
        if (m_handle == nullptr) {
            return ROVA_SUCCESS;
        }
        const rova_error_t code =
            priv_rova_umem_bridge(this, PRIV_ROVA_UMEM_BRIDGE_CMD_UNINIT, nullptr);
        if (code != ROVA_SUCCESS) {
            return failed_to("dereg", code, ROVA_HERE);
        }
        m_handle = nullptr;
        return ROVA_SUCCESS;
    }

    /** Gives the export descriptor, which the region owns and builds on the first call. */
    rova_error_t get_export(void** export_desc, size_t* export_desc_len)
    {
        if (m_export_desc.empty()) {
            const rova_error_t code =
                priv_rova_umem_bridge(this, PRIV_ROVA_UMEM_BRIDGE_CMD_EXPORT, nullptr);
            if (code != ROVA_SUCCESS) {
                return failed_to("create export descriptor", code, ROVA_HERE);
            }
        }
        *export_desc = m_export_desc.data();
        *export_desc_len = m_export_desc.size();
        return ROVA_SUCCESS;
    }

    /** Hands the registration to the device. On failure it stays the region's. */
    rova_error_t release()
    {
        const rova_error_t code =
            priv_rova_umem_bridge(this, PRIV_ROVA_UMEM_BRIDGE_CMD_RELEASE, nullptr);
        if (code != ROVA_SUCCESS) {
            return failed_to("release", code, ROVA_HERE);
        }
        m_handle = nullptr;
        return ROVA_SUCCESS;
    }

private:
    friend rova_error_t priv_rova_umem_bridge(priv_rova_umem* umem, priv_rova_umem_bridge_cmd cmd,
                                              priv_rova_umem_bridge_cmd_data* data);

    rova_error_t bridge_init() noexcept;
    rova_error_t bridge_init_dmabuf(int dmabuf_fd, size_t dmabuf_offset) noexcept;
    rova_error_t bridge_init_apx(rova_apx* apx) noexcept;
    rova_error_t bridge_init_from_export(const void* export_desc, size_t export_desc_len) noexcept;
    rova_error_t bridge_uninit() noexcept;
    rova_error_t bridge_export() noexcept;
    rova_error_t bridge_release() noexcept;

    rova_error_t import_export_blob_major_1(const core::priv_rova_importer& importer) noexcept;

    void set_range(const rova_dev* dev, void* address, size_t size, uint32_t access_flags,
                   size_t page_size)
    {
        m_dev = dev;
        m_size = size;
        m_page_size = page_size;
        m_address = address;
        m_access_flags = access_flags;
    }

    // Logs on behalf of a method, and returns the code.
    rova_error_t failed_to(const char* verb, rova_error_t code,
                           rova::exception::source_loc here) const
    {
        priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, priv_rova_log_get_header_source(), here.file,
                                static_cast<int>(here.line), here.function,
                                "UMEM %p: Failed to %s. err=%s", static_cast<const void*>(this),
                                verb, rova_error_get_name(code));
        return code;
    }

    // Throws on behalf of a constructor. That constructor has not completed and delegates to no
    // other, so the destructor does not run and nothing is deregistered.
    static void require(rova_error_t code, rova::exception::source_loc here)
    {
        if (code != ROVA_SUCCESS) {
            throw rova::exception(code, "priv_rova_umem constructor failed", here);
        }
    }

    tlox_umem* m_handle = nullptr;
    const rova_dev* m_dev = nullptr;
    size_t m_size = 0;
    size_t m_page_size = 0;
    uint64_t m_base_offset = 0;
    void* m_address = nullptr;
    uint32_t m_access_flags = 0;
    uint32_t m_id = 0;
    std::vector<uint8_t> m_export_desc;
};

/** @} */
