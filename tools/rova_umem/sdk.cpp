#include "sdk.hpp"

#include <exception>
#include <mutex>
#include <utility>

#include "console.hpp"

namespace tool {
namespace {

/** Records arrive from every thread of the libraries. */
struct log_collection {
    std::mutex mutex;
    std::vector<log_line> lines;
    bool shown = false;

    /** Never destroyed: a thread of a library may log while the program ends. */
    static log_collection& instance()
    {
        static log_collection* const collection = std::make_unique<log_collection>().release();
        return *collection;
    }
};

const char* level_name(uint32_t level)
{
    return level <= ROVA_LOG_LEVEL_ERROR     ? "error"
           : level <= ROVA_LOG_LEVEL_WARNING ? "warning"
           : level <= ROVA_LOG_LEVEL_INFO    ? "info"
                                             : "debug";
}

void collect(const struct rova_platform_log_record* record, void* /*user*/)
{
    try {
        const log_line line{level_name(record->level), record->source, record->function,
                            record->message};
        log_collection& collection = log_collection::instance();
        const std::lock_guard<std::mutex> lock(collection.mutex);
        if (collection.shown) {
            print_error(line.level + " " + line.source + " " + line.function + ": " +
                        printable(line.message) + "\n");
        }
        if (record->level <= ROVA_LOG_LEVEL_WARNING) {
            collection.lines.push_back(line);
        }
    } catch (const std::exception&) {
        // No memory for the log record: the failure then shows only the code.
    }
}

exit_code exit_code_of(rova_error_t code)
{
    switch (code) {
        case ROVA_ERROR_NOT_FOUND:
        case ROVA_ERROR_NOT_CONNECTED:
        case ROVA_ERROR_CONNECTION_RESET:
            return exit_code::region_gone;
        case ROVA_ERROR_NOT_PERMITTED:
            return exit_code::not_permitted;
        case ROVA_ERROR_UNSUPPORTED_VERSION:
            return exit_code::bad_descriptor;
        case ROVA_ERROR_TIME_OUT:
            return exit_code::time_out;
        default:
            return exit_code::failed;
    }
}

}  // namespace

void collect_log(bool shown)
{
    log_collection::instance().shown = shown;
    check(rova_platform_log_set_sink(collect, nullptr), "collect the log");
    if (shown) {
        check(rova_platform_log_set_level(ROVA_LOG_LEVEL_TRACE), "set the log level");
    }
}

std::vector<log_line> take_log()
{
    log_collection& collection = log_collection::instance();
    const std::lock_guard<std::mutex> lock(collection.mutex);
    return std::exchange(collection.lines, {});
}

std::string short_text(const log_line& line, rova_error_t code)
{
    const std::string code_and_place = std::string(" (") + rova_error_get_name(code) + ")";
    return printable(line.message.substr(0, line.message.find(code_and_place)));
}

sdk_failure::sdk_failure(rova_error_t code, const std::string& text)
    : failure(text, exit_code_of(code)), m_error(code)
{}

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

void gpu_memory::free()
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

}  // namespace tool
