#include "sdk.hpp"

#include <exception>
#include <utility>

#include "descriptor.hpp"

namespace tool {
namespace {

std::vector<log_line>& collected_log()
{
    static std::vector<log_line> log;
    return log;
}

const char* level_name(uint32_t level)
{
    return level <= ROVA_LOG_LEVEL_ERROR     ? "error"
           : level <= ROVA_LOG_LEVEL_WARNING ? "warning"
                                             : "info";
}

void collect(const struct rova_soft_log_record* record, void* /*user*/)
{
    try {
        collected_log().push_back(
            {level_name(record->level), record->source, record->function, record->message});
    } catch (const std::exception&) {
        // No memory for a log line: the code alone has to do.
    }
}

}  // namespace

void collect_log()
{
    check(rova_soft_log_set_sink(collect, nullptr), "collect the log");
}

std::vector<log_line> take_log()
{
    return std::exchange(collected_log(), {});
}

std::string short_text(const log_line& line, rova_error_t code)
{
    const std::string code_and_place = std::string(" (") + rova_error_get_name(code) + ")";
    return printable(line.message.substr(0, line.message.find(code_and_place)));
}

void check(rova_error_t code, const std::string& could_not)
{
    const auto log = take_log();
    if (code == ROVA_SUCCESS) {
        return;
    }
    const std::string reason = log.empty() ? "" : ": " + short_text(log.front(), code);
    throw sdk_failure(code,
                      "cannot " + could_not + reason + " (" + rova_error_get_name(code) + ")");
}

gpu_memory::gpu_memory(rova_gpu* gpu, size_t size) : m_gpu(gpu)
{
    check(rova_soft_gpu_alloc(gpu, size, &m_address), "allocate GPU memory");
}

gpu_memory::gpu_memory(gpu_memory&& other) noexcept
    : m_gpu(other.m_gpu), m_address(std::exchange(other.m_address, nullptr))
{}

gpu_memory& gpu_memory::operator=(gpu_memory&& other) noexcept
{
    std::swap(m_gpu, other.m_gpu);
    std::swap(m_address, other.m_address);
    return *this;
}

gpu_memory::~gpu_memory()
{
    if (m_address != nullptr) {
        static_cast<void>(rova_soft_gpu_free(m_gpu, m_address));
    }
}

void gpu_memory::end()
{
    check(rova_soft_gpu_free(m_gpu, m_address), "free GPU memory");
    m_address = nullptr;
}

region_facts::region_facts(const priv_rova_umem* region)
{
    check(priv_rova_umem_id_get(region, &id), "ask for the umem id");
    check(priv_rova_umem_size_get(region, &size), "ask for the size");
    check(priv_rova_umem_pg_size_get(region, &page_size), "ask for the page size");
    check(priv_rova_umem_base_offset_get(region, &base_offset), "ask for the base offset");
    check(priv_rova_umem_buffer_get(region, &address), "ask for the address");
}

byte_vector export_region(priv_rova_umem* region)
{
    void* data = nullptr;
    size_t length = 0;
    check(priv_rova_umem_export(region, &data, &length), "export the region");
    const auto* first = static_cast<const uint8_t*>(data);
    return {first, first + length};
}

imported_region::imported_region(std::string descriptor_path)
    : m_path(std::move(descriptor_path)), m_device(make<device_ptr>("a device", rova_soft_dev_open))
{
    const byte_vector bytes = read_descriptor(m_path);
    const descriptor_report report = examine(bytes);
    m_is_damaged = !report.damages.empty();
    priv_rova_umem* region = nullptr;
    // The address is for the caller's own use and must not be null; this program has none.
    check_with_advice(priv_rova_umem_create_from_export(m_device.get(), bytes.data(), bytes.size(),
                                                        this, &region),
                      "import " + in_quotes(m_path));
    m_region.reset(region);
    check(priv_rova_umem_id_get(region, &m_id), "ask for the umem id");
    m_size = report.size.value_or(0);
    m_writable = (report.access_flags.value_or(0) & ROVA_SOFT_ACCESS_WRITE) != 0;
}

void imported_region::check_with_advice(rova_error_t code, const std::string& could_not) const
{
    try {
        check(code, could_not);
    } catch (const sdk_failure& error) {
        throw failure(error.what() + advice(code));
    }
}

std::string imported_region::advice(rova_error_t code) const
{
    if (code == ROVA_ERROR_NOT_FOUND) {
        return "\nWhoever shared it has ended or stopped sharing. Share it again.";
    }
    if (code == ROVA_ERROR_IO_FAILED && m_region != nullptr) {
        return "\nThe shared memory is gone, or its file became shorter. Share it again.";
    }
    if (code == ROVA_ERROR_NOT_PERMITTED && m_region != nullptr && !m_writable) {
        return "\nWhoever shares it can let others write with --writable.";
    }
    if (code == ROVA_ERROR_UNSUPPORTED_VERSION) {
        return "\nA later version made it. Use that version here, too.";
    }
    // The block may be wrong, too, of which the descriptor's form tells nothing.
    const bool descriptor_is_wrong =
        m_region == nullptr && (m_is_damaged || code == ROVA_ERROR_INVALID_VALUE);
    return descriptor_is_wrong
               ? "\nSee what is wrong with it: rova_umem inspect " + printable(m_path)
               : "";
}

void imported_region::read(uint64_t offset, void* data, size_t size) const
{
    check_with_advice(rova_soft_dev_read(m_device.get(), m_id, offset, data, size),
                      "read the shared memory at offset " + std::to_string(offset));
}

void imported_region::write(uint64_t offset, const void* data, size_t size) const
{
    check_with_advice(rova_soft_dev_write(m_device.get(), m_id, offset, data, size),
                      "write the shared memory at offset " + std::to_string(offset));
}

void imported_region::end()
{
    tool::end(m_region, "the imported region");
    tool::end(m_device, "the device");
}

}  // namespace tool
