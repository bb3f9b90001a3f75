/*
 * Memory regions: the bridge to the device layer, export and import, and the flat functions.
 */
#include "rova_umem.h"

#include <algorithm>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "device_abstraction/idevice_adapter.hpp"
#include "device_abstraction/itlox_adapter.hpp"
#include "priv_rova_exception_converter.h"
#include "priv_rova_export.hpp"
#include "priv_rova_log.h"
#include "priv_rova_page_size.h"
#include "priv_rova_sub_dev_apx.h"
#include "priv_rova_sub_dev_gpu.h"
#include "priv_rova_umem.hpp"
#include "priv_rova_umem_api.h"
#include "rova_dev.hpp"
#include "rova_exception.hpp"
#include "rova_version.h"

/** What applications hold: the region that it owns. */
struct rova_umem {
    priv_rova_umem* m_priv_umem = nullptr;
};

namespace {

namespace keys = core::payload_key;

int log_source = 0;

// Runs before every ordinary static constructor, so that their calls log under the right name.
__attribute__((constructor(101))) void register_log_source()
{
    rova_log_register_source("CORE::ROVA_UMEM", &log_source);
}

#define LOG_AT(level, ...) \
    priv_rova_log_developer(level, log_source, __FILE__, __LINE__, __func__, __VA_ARGS__)

#define LOG_ERROR(...) LOG_AT(ROVA_LOG_LEVEL_ERROR, __VA_ARGS__)
#define LOG_DEBUG(...) LOG_AT(ROVA_LOG_LEVEL_DEBUG, __VA_ARGS__)

// One row of a function's table of argument checks: the condition to refuse, and the message.
#define REFUSE_IF(condition, ...)            \
    do {                                     \
        if (condition) {                     \
            LOG_ERROR(__VA_ARGS__);          \
            return ROVA_ERROR_INVALID_VALUE; \
        }                                    \
    } while (false)

// Logs the failure of a step and returns its code.
#define RETURN_IF_FAILED(code, ...)   \
    do {                              \
        if ((code) != ROVA_SUCCESS) { \
            LOG_ERROR(__VA_ARGS__);   \
            return code;              \
        }                             \
    } while (false)

// Logs the exception that is being handled, and gives its code.
rova_error_t report_exception(rova::exception::source_loc here, const char* context) noexcept
{
    return priv_rova_exception_to_rova_error_imp(here.file, static_cast<int>(here.line),
                                                 here.function, context, false);
}

// Borrowed for one operation; not kept beyond the call that uses it.
std::shared_ptr<device_abstraction::itlox_adapter> tlox_adapter(const rova_dev* dev) noexcept
{
    return dev->device_adapter->get_tlox_adapter();
}

// Takes an object back from the caller that owned it.
template <typename object>
void reclaim(object* owned)
{
    const std::unique_ptr<object> last_owner(owned);
}

rova_error_t validate_export_blob_version(uint8_t major, uint8_t /*minor*/)
{
    if (major > core::sc_umem_export_major_version) {
        LOG_ERROR("Failed to export blob version: unknown major version=%u > supported major=%u",
                  unsigned{major}, unsigned{core::sc_umem_export_major_version});
        return ROVA_ERROR_UNSUPPORTED_VERSION;
    }
    return ROVA_SUCCESS;
}

}  // namespace

rova_error_t rova_umem_create(const rova_dev* dev, void* address, size_t size,
                              uint32_t access_flags, rova_umem** umem_obj)
try {
    REFUSE_IF(dev == nullptr, "Failed to create umem: parameter dev=NULL");
    REFUSE_IF(address == nullptr, "Failed to create umem: parameter address=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(umem_obj == nullptr, "Failed to create umem: parameter umem_obj=NULL");

    auto handle = std::make_unique<rova_umem>();
    const rova_error_t code =
        priv_rova_umem_create(dev, address, size, access_flags, &handle->m_priv_umem);
    RETURN_IF_FAILED(code, "Failed to create private umem");
    *umem_obj = handle.release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create host umem");
}

rova_error_t rova_umem_gpu_create(rova_gpu* gpu, rova_dev* dev, void* address, size_t size,
                                  uint32_t access_flags, rova_umem** umem_obj)
try {
    REFUSE_IF(gpu == nullptr, "Failed to create umem: parameter gpu=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(umem_obj == nullptr, "Failed to create gpu umem: parameter umem_obj=NULL");

    auto handle = std::make_unique<rova_umem>();
    const rova_error_t code =
        priv_rova_umem_gpu_create(gpu, dev, address, size, access_flags, &handle->m_priv_umem);
    RETURN_IF_FAILED(code, "Failed to create private gpu umem");
    *umem_obj = handle.release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create gpu umem");
}

rova_error_t rova_umem_apx_create(rova_apx* apx, uint64_t address, size_t size,
                                  uint32_t access_flags, rova_umem** umem_obj)
try {
    REFUSE_IF(apx == nullptr, "Failed to create umem: parameter apx=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(umem_obj == nullptr, "Failed to create apx umem: parameter umem_obj=NULL");

    auto handle = std::make_unique<rova_umem>();
    const rova_error_t code =
        priv_rova_umem_apx_create(apx, address, size, access_flags, &handle->m_priv_umem);
    RETURN_IF_FAILED(code, "Failed to create private apx umem");
    *umem_obj = handle.release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create apx umem");
}

rova_error_t rova_umem_destroy(rova_umem* umem_obj)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to destroy umem: parameter umem_obj=NULL");

    const rova_error_t code = priv_rova_umem_destroy(umem_obj->m_priv_umem);
    RETURN_IF_FAILED(code, "umem %p: Failed to destroy private umem. err=%s",
                     static_cast<void*>(umem_obj), rova_error_get_name(code));
    reclaim(umem_obj);
    return ROVA_SUCCESS;
}

rova_error_t rova_umem_get_id(const rova_umem* umem_obj, uint32_t* umem_id)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem id: umem_obj=NULL");
    REFUSE_IF(umem_id == nullptr, "Failed to get umem id: umem_id=NULL");

    return priv_rova_umem_id_get(umem_obj->m_priv_umem, umem_id);
}

rova_error_t rova_umem_get_size(const rova_umem* umem_obj, uint32_t* umem_size)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem size: umem_obj=NULL");
    REFUSE_IF(umem_size == nullptr, "Failed to get umem size: umem_size=NULL");

    return priv_rova_umem_size_get(umem_obj->m_priv_umem, umem_size);
}

rova_error_t rova_umem_get_address(const rova_umem* umem_obj, void** umem_addr)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem address: umem_obj=NULL");
    REFUSE_IF(umem_addr == nullptr, "Failed to get umem address: umem_addr=NULL");

    return priv_rova_umem_buffer_get(umem_obj->m_priv_umem, umem_addr);
}

priv_rova_umem* priv_rova_umem_from_rova_umem(const rova_umem* umem_obj)
{
    if (umem_obj == nullptr) {
        LOG_ERROR("Failed to get priv umem instance: umem_obj=NULL");
        return nullptr;
    }
    return umem_obj->m_priv_umem;
}

rova_error_t priv_rova_umem_create(const rova_dev* dev, void* address, size_t size,
                                   uint32_t access_flags, priv_rova_umem** umem_obj)
try {
    REFUSE_IF(dev == nullptr, "Failed to create umem: parameter dev=NULL");
    REFUSE_IF(address == nullptr, "Failed to create umem: parameter address=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(umem_obj == nullptr, "Failed to create umem: parameter umem_obj=NULL");

    *umem_obj = std::make_unique<priv_rova_umem>(*dev, address, size, access_flags).release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create umem");
}

rova_error_t priv_rova_umem_create_pg_sz(const rova_dev* dev, void* address, size_t size,
                                         size_t page_size, uint32_t access_flags,
                                         priv_rova_umem** umem_obj)
try {
    REFUSE_IF(dev == nullptr, "Failed to create umem: parameter dev=NULL");
    REFUSE_IF(address == nullptr, "Failed to create umem: parameter address=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(page_size == 0, "Failed to create umem: parameter page_size=0");
    REFUSE_IF(umem_obj == nullptr, "Failed to create umem: parameter umem_obj=NULL");

    *umem_obj =
        std::make_unique<priv_rova_umem>(*dev, address, size, access_flags, page_size).release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create umem with page size");
}

rova_error_t priv_rova_umem_create_dmabuf(const rova_dev* dev, void* address, size_t dmabuf_offset,
                                          size_t size, size_t page_size, int dmabuf_fd,
                                          uint32_t access_flags, priv_rova_umem** umem_obj)
try {
    REFUSE_IF(dev == nullptr, "Failed to create umem: parameter dev=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(page_size == 0, "Failed to create umem: parameter page_size=0");
    REFUSE_IF(dmabuf_fd < 0, "Failed to create umem: parameter dmabuf_fd=%d is less than zero",
              dmabuf_fd);
    REFUSE_IF(umem_obj == nullptr, "Failed to create umem: parameter umem_obj=NULL");

    *umem_obj = std::make_unique<priv_rova_umem>(*dev, dmabuf_fd, address, dmabuf_offset, size,
                                                 access_flags, page_size)
                    .release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create umem with dmabuf_fd");
}

rova_error_t priv_rova_umem_gpu_create(rova_gpu* gpu, rova_dev* dev, void* address, size_t size,
                                       uint32_t access_flags, priv_rova_umem** umem_obj)
{
    REFUSE_IF(gpu == nullptr, "Failed to create umem: parameter gpu=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(umem_obj == nullptr, "Failed to create umem: parameter umem_obj=NULL");

    const priv_rova_sub_dev_gpu_ops* ops = priv_rova_sub_dev_gpu_ops_get();
    if (ops == nullptr) {
        LOG_ERROR("Failed to retrieve ROVA GPU ops");
        return ROVA_ERROR_BAD_STATE;
    }

    const size_t page_size = priv_rova_get_page_size();
    int dmabuf_fd = -1;
    if (ops->get_dmabuf_fd_cb(gpu, address, size, &dmabuf_fd) == ROVA_SUCCESS &&
        priv_rova_umem_create_dmabuf(dev, address, 0, size, page_size, dmabuf_fd, access_flags,
                                     umem_obj) == ROVA_SUCCESS)
    {
        return ROVA_SUCCESS;
    }

    const rova_error_t code =
        priv_rova_umem_create_pg_sz(dev, address, size, page_size, access_flags, umem_obj);
    RETURN_IF_FAILED(code, "Failed to create private gpu umem with legacy mode");
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_apx_create(rova_apx* apx, uint64_t address, size_t size,
                                       uint32_t access_flags, priv_rova_umem** umem_obj)
try {
    REFUSE_IF(apx == nullptr, "Failed to create umem: parameter apx=NULL");
    REFUSE_IF(size == 0, "Failed to create umem: parameter size=0");
    REFUSE_IF(umem_obj == nullptr, "Failed to create umem: parameter umem_obj=NULL");

    *umem_obj = std::make_unique<priv_rova_umem>(*apx, address, size, access_flags).release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create apx umem");
}

rova_error_t priv_rova_umem_create_from_export(const rova_dev* dev, const void* export_desc,
                                               size_t export_desc_len, void* address,
                                               priv_rova_umem** umem_obj)
try {
    REFUSE_IF(dev == nullptr, "Failed to create umem: parameter dev=NULL");
    REFUSE_IF(export_desc == nullptr, "Failed to create umem: parameter export_desc=NULL");
    REFUSE_IF(export_desc_len == 0, "Failed to create umem: parameter export_desc_len=0");
    REFUSE_IF(address == nullptr, "Failed to create umem: parameter address=NULL");
    REFUSE_IF(umem_obj == nullptr, "Failed to create umem: parameter umem_obj=NULL");

    *umem_obj =
        std::make_unique<priv_rova_umem>(*dev, export_desc, export_desc_len, address).release();
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to create umem from export descriptor");
}

rova_error_t priv_rova_umem_export(priv_rova_umem* umem_obj, void** export_desc,
                                   size_t* export_desc_len)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to export umem: umem_obj=NULL");
    REFUSE_IF(export_desc == nullptr, "Failed to export umem: export_desc=NULL");
    REFUSE_IF(export_desc_len == nullptr, "Failed to export umem: export_desc_len=NULL");

    return umem_obj->get_export(export_desc, export_desc_len);
}

rova_error_t priv_rova_umem_id_get(const priv_rova_umem* umem_obj, uint32_t* umem_id)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem id: umem_obj=NULL");
    REFUSE_IF(umem_id == nullptr, "Failed to get umem id: umem_id=NULL");

    *umem_id = umem_obj->get_id();
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_size_get(const priv_rova_umem* umem_obj, uint32_t* umem_size)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem size: umem_obj=NULL");
    REFUSE_IF(umem_size == nullptr, "Failed to get umem size: umem_size=NULL");

    *umem_size = static_cast<uint32_t>(umem_obj->get_size());
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_pg_size_get(const priv_rova_umem* umem_obj, uint32_t* umem_pg_size)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem pg_size: umem_obj=NULL");
    REFUSE_IF(umem_pg_size == nullptr, "Failed to get umem pg_size: umem_pg_size=NULL");

    *umem_pg_size = static_cast<uint32_t>(umem_obj->get_page_size());
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_buffer_get(const priv_rova_umem* umem_obj, void** umem_buf_addr)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem buffer: umem_obj=NULL");
    REFUSE_IF(umem_buf_addr == nullptr, "Failed to get umem buffer: umem_buf_addr=NULL");

    *umem_buf_addr = umem_obj->get_buffer();
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_base_offset_get(const priv_rova_umem* umem_obj,
                                            uint64_t* umem_base_offset)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to get umem buffer: umem_obj=NULL");
    REFUSE_IF(umem_base_offset == nullptr, "Failed to get umem buffer: umem_base_offset=NULL");

    *umem_base_offset = umem_obj->get_base_offset();
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_release(priv_rova_umem* umem_obj)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to release umem: umem_obj=NULL");

    const rova_error_t code = umem_obj->release();
    RETURN_IF_FAILED(code, "Failed to release umem: %s", rova_error_get_name(code));
    reclaim(umem_obj);
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_destroy(priv_rova_umem* umem_obj)
{
    REFUSE_IF(umem_obj == nullptr, "Failed to destroy umem: parameter umem_obj=NULL");

    const rova_error_t code = umem_obj->dereg();
    RETURN_IF_FAILED(code, "umem %p: Failed to destroy umem. err=%s", static_cast<void*>(umem_obj),
                     rova_error_get_name(code));
    reclaim(umem_obj);
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem_bridge(priv_rova_umem* umem, priv_rova_umem_bridge_cmd cmd,
                                   priv_rova_umem_bridge_cmd_data* data)
{
    const bool needs_data = cmd == PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_DMABUF ||
                            cmd == PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_APX ||
                            cmd == PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_FROM_EXPORT;
    REFUSE_IF(needs_data && data == nullptr, "UMEM %p: Command %d without data",
              static_cast<void*>(umem), static_cast<int>(cmd));

    switch (cmd) {
        case PRIV_ROVA_UMEM_BRIDGE_CMD_INIT:
            return umem->bridge_init();
        case PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_DMABUF:
            return umem->bridge_init_dmabuf(data->init_dmabuf_data.dmabuf_fd,
                                            data->init_dmabuf_data.dmabuf_offset);
        case PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_APX:
            return umem->bridge_init_apx(data->init_apx_data.apx);
        case PRIV_ROVA_UMEM_BRIDGE_CMD_INIT_FROM_EXPORT:
            return umem->bridge_init_from_export(data->init_from_export_data.export_desc,
                                                 data->init_from_export_data.export_desc_len);
        case PRIV_ROVA_UMEM_BRIDGE_CMD_UNINIT:
            return umem->bridge_uninit();
        case PRIV_ROVA_UMEM_BRIDGE_CMD_EXPORT:
            return umem->bridge_export();
        case PRIV_ROVA_UMEM_BRIDGE_CMD_RELEASE:
            return umem->bridge_release();
    }
    LOG_ERROR("UMEM %p: Invalid command %d", static_cast<void*>(umem), static_cast<int>(cmd));
    return ROVA_ERROR_UNEXPECTED;
}

rova_error_t priv_rova_umem::bridge_init() noexcept
try {
    std::tie(m_handle, m_id) =
        tlox_adapter(m_dev)->register_umem(m_address, m_size, m_access_flags, m_page_size);
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to register umem");
}

rova_error_t priv_rova_umem::bridge_init_dmabuf(int dmabuf_fd, size_t dmabuf_offset) noexcept
try {
    std::tie(m_handle, m_id) = tlox_adapter(m_dev)->register_umem_dmabuf(
        dmabuf_fd, m_address, dmabuf_offset, m_size, m_access_flags, m_page_size);
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to register dmabuf umem");
}

rova_error_t priv_rova_umem::bridge_init_apx(rova_apx* apx) noexcept
{
    const priv_rova_sub_dev_apx_ops* ops = priv_rova_sub_dev_apx_ops_get();
    if (ops == nullptr) {
        LOG_ERROR("APX umem %p: failed to get APX sub device ops", static_cast<void*>(this));
        return ROVA_ERROR_INITIALIZATION;
    }

    rova_error_t code = ops->get_umem_id_cb(apx, &m_id);
    RETURN_IF_FAILED(code, "Failed to get APX UMEM ID %s", rova_error_get_name(code));

    const auto apx_address = reinterpret_cast<uint64_t>(m_address);
    code = ops->get_umem_base_offset_cb(apx, apx_address, &m_base_offset);
    RETURN_IF_FAILED(code, "Failed to get APX UMEM base offset %s", rova_error_get_name(code));
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_umem::bridge_init_from_export(const void* export_desc,
                                                     size_t export_desc_len) noexcept
try {
    const auto importer =
        core::priv_rova_importer::import(static_cast<const uint8_t*>(export_desc), export_desc_len);
    const uint32_t major = importer[keys::version][keys::version_major].get_uint32();
    const uint32_t minor = importer[keys::version][keys::version_minor].get_uint32();
    LOG_DEBUG("UMEM %p: blob version = {major=%u, minor=%u}", static_cast<void*>(this), major,
              minor);

    // The version check sees only the low 8 bits, as the format defines it. A larger major that
    // passes the check is refused below.
    const rova_error_t code =
        validate_export_blob_version(static_cast<uint8_t>(major), static_cast<uint8_t>(minor));
    if (code != ROVA_SUCCESS) {
        return code;
    }
    if (major == core::sc_umem_export_major_1) {
        return import_export_blob_major_1(importer);
    }
    LOG_DEBUG("UMEM %p: Unknown export blob major version: %u", static_cast<void*>(this), major);
    return ROVA_ERROR_INVALID_VALUE;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to import umem from export descriptor");
}

rova_error_t priv_rova_umem::import_export_blob_major_1(
    const core::priv_rova_importer& importer) noexcept
try {
    m_size = importer[keys::size].get_uint64();
    m_page_size = importer[keys::page_size].get_uint64();
    m_access_flags = importer[keys::access_flags].get_uint32();

    const std::vector<uint8_t> block = importer[keys::device_block].to_bytes();
    std::tie(m_handle, m_id) = tlox_adapter(m_dev)->import_umem(block.data(), block.size());
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to import umem from export descriptor");
}

rova_error_t priv_rova_umem::bridge_uninit() noexcept
{
    return tlox_adapter(m_dev)->deregister_umem(m_handle);
}

rova_error_t priv_rova_umem::bridge_export() noexcept
try {
    std::vector<uint8_t> block = tlox_adapter(m_dev)->export_umem(m_handle);
    if (block.empty()) {
        LOG_ERROR("Failed to export umem");
        return ROVA_ERROR_NO_MEMORY;
    }

    core::priv_rova_exporter exporter;
    exporter[keys::version] = {{keys::version_major, core::sc_umem_export_major_version},
                               {keys::version_minor, core::sc_umem_export_minor_version}};
    exporter[keys::size] = m_size;
    exporter[keys::page_size] = m_page_size;
    exporter[keys::access_flags] = m_access_flags;
    exporter[keys::device_block] = core::export_proto::from_bytes(std::move(block));

    const uint8_t* export_blob = nullptr;
    size_t export_blob_length = 0;
    exporter.export_obj(&export_blob, &export_blob_length);
    try {
        m_export_desc.resize(export_blob_length);
    } catch (...) {
        LOG_ERROR("Failed to export umem: failed to allocate memory for export descriptor");
        return ROVA_ERROR_NO_MEMORY;
    }
    std::copy_n(export_blob, export_blob_length, m_export_desc.begin());
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to export umem");
}

rova_error_t priv_rova_umem::bridge_release() noexcept
try {
    tlox_adapter(m_dev)->release_umem(m_handle);
    return ROVA_SUCCESS;
} catch (...) {
    return report_exception(ROVA_HERE, "Failed to release umem");
}

#define AS_TEXT(number) #number
#define DOTTED(major, minor, patch) AS_TEXT(major) "." AS_TEXT(minor) "." AS_TEXT(patch)

const char* rova_version_get()
{
    return DOTTED(ROVA_VERSION_MAJOR, ROVA_VERSION_MINOR, ROVA_VERSION_PATCH);
}
