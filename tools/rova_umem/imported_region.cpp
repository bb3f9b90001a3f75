#include "imported_region.hpp"

#include <utility>

#include "devices.hpp"
#include "exporter.hpp"
#include "failure.hpp"
#include "text.hpp"

namespace tool {
namespace {

failure advised(const sdk_failure& error, const std::string& advice, exit_code code)
{
    return failure(std::string(error.what()) + "\n" + advice, code);
}

}  // namespace

imported_region::imported_region(std::string descriptor_path, const options& given)
{
    const byte_vector bytes = read_descriptor(descriptor_path, given.max_descriptor);
    *this = imported_region(std::move(descriptor_path), bytes, examine(bytes), given);
}

imported_region::imported_region(std::string descriptor_path, const byte_vector& bytes,
                                 const descriptor_report& report, const options& given)
    : m_path(std::move(descriptor_path)), m_is_damaged(!report.is_intact())
{
    // A damaged descriptor may have no block. Any device makes the library say what is wrong.
    const device_name device = report.is_intact() ? device_for_block(*report.device_block, given)
                                                  : device_name{ROVA_PLATFORM_BLOCK_SOFT, ""};
    m_process = explain_soft_block(report.device_block.value_or(byte_vector()));
    m_device = open_device(device, given);
    priv_rova_umem* region = nullptr;
    // The address is for the caller's own use and must not be null; this program has none.
    check_with_advice(priv_rova_umem_create_from_export(m_device.get(), bytes.data(), bytes.size(),
                                                        this, &region),
                      "import " + in_quotes(m_path));
    m_region.reset(region);
    check(priv_rova_umem_id_get(region, &m_id), "ask for the umem id");
    rova_platform_region exported = {};
    check(rova_platform_dev_get_region(m_device.get(), m_id, &exported), "ask for the region");
    m_size = report.size.value_or(0);
    if (m_size != exported.size) {
        throw failure(in_quotes(m_path) + " is wrong: it says that the region has " +
                          count(m_size, "byte") + ", but its exporter says " +
                          count(exported.size, "byte"),
                      exit_code::bad_descriptor);
    }
    m_writable = (exported.access_flags & ROVA_PLATFORM_ACCESS_WRITE) != 0;
}

void imported_region::check_with_advice(rova_error_t code, const std::string& could_not) const
{
    try {
        check(code, could_not);
    } catch (const sdk_failure& error) {
        throw with_advice(error);
    }
}

failure imported_region::with_advice(const sdk_failure& error) const
{
    const bool while_importing = m_region == nullptr;
    // The descriptor can be intact while the device's block inside it is wrong.
    const bool is_wrong = m_is_damaged || error.error() == ROVA_ERROR_INVALID_VALUE;
    if (while_importing && error.error() == ROVA_ERROR_UNSUPPORTED_VERSION) {
        return advised(error, "A later version made it. Use that version here, too.",
                       exit_code::bad_descriptor);
    }
    if (while_importing && is_wrong) {
        return advised(error, "See what is wrong with it: rova_umem inspect " + printable(m_path),
                       exit_code::bad_descriptor);
    }
    const bool cannot_see = while_importing && error.error() == ROVA_ERROR_OPERATING_SYSTEM &&
                            m_process &&
                            look_for(*m_process).found == process_sight::state::no_proc;
    if (error.error() == ROVA_ERROR_NOT_FOUND || cannot_see) {
        return with_advice_for_lost(error);
    }
    if (error.error() == ROVA_ERROR_IO_FAILED && !while_importing) {
        return advised(error,
                       "The shared memory is gone, or its file became shorter. Share it again.",
                       exit_code::region_gone);
    }
    if (error.error() == ROVA_ERROR_NOT_PERMITTED && !while_importing && !m_writable) {
        return advised(
            error,
            "The region is shared for reading only. Share it with --writable to write to "
            "it.",
            error.code());
    }
    if (error.error() == ROVA_ERROR_NOT_PERMITTED && while_importing && !m_process) {
        return advised(error,
                       "If you trust the network of that address, allow it with --allow NETWORK.",
                       error.code());
    }
    return failure(error.what(), error.code());
}

/** What to do when the library does not find the region or its process. */
failure imported_region::with_advice_for_lost(const sdk_failure& error) const
{
    if (!m_process) {
        return advised(error,
                       "The process that shared it has ended or stopped sharing. Share it again.",
                       exit_code::region_gone);
    }
    const process_sight seen = look_for(*m_process);
    switch (seen.found) {
        case process_sight::state::ended:
            return advised(
                error,
                "The process that shared it has ended, or ran on another machine. Share it "
                "again.",
                exit_code::region_gone);
        case process_sight::state::runs:
            return advised(
                error,
                "The process that shared it still runs, but the region is gone. Share it "
                "again.",
                exit_code::region_gone);
        case process_sight::state::elsewhere:
            return advised(error,
                           "The process that shared it runs in another pid namespace (container), "
                           "here as process " +
                               std::to_string(seen.pid) + ". Run this in that container.",
                           exit_code::failed);
        case process_sight::state::hidden:
        case process_sight::state::not_found:
            return advised(error,
                           "The process that shared it has ended, or it runs in another container "
                           "(pid namespace). Share it again, or run this in that container.",
                           exit_code::region_gone);
        case process_sight::state::no_proc:
            return advised(error,
                           "Without a /proc of this pid namespace, no other process can be seen. "
                           "Mount it with 'mount -t proc proc /proc', and try again.",
                           exit_code::failed);
    }
    return failure(error.what(), error.code());
}

void imported_region::read(uint64_t offset, void* data, size_t size) const
{
    check_with_advice(rova_platform_dev_read(m_device.get(), m_id, offset, data, size),
                      "read the shared memory at offset " + std::to_string(offset));
}

void imported_region::write(uint64_t offset, const void* data, size_t size) const
{
    check_with_advice(rova_platform_dev_write(m_device.get(), m_id, offset, data, size),
                      "write the shared memory at offset " + std::to_string(offset));
}

void imported_region::release()
{
    reclaim(m_region, "the imported region");
    reclaim(m_device, "the device");
}

}  // namespace tool
