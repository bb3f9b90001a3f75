#include "log.hpp"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "cancellation.hpp"
#include "failure.hpp"
#include "line_writer.hpp"
#include "priv_rova_log.h"
#include "process_generation.hpp"
#include "rova_platform.h"

namespace platform {
namespace {

struct level_name {
    uint32_t level;
    const char* name;
};

constexpr std::array<level_name, 6> record_levels = {{
    {ROVA_LOG_LEVEL_TRACE, "trace"},
    {ROVA_LOG_LEVEL_DEBUG, "debug"},
    {ROVA_LOG_LEVEL_INFO, "info"},
    {ROVA_LOG_LEVEL_WARNING, "warning"},
    {ROVA_LOG_LEVEL_ERROR, "error"},
    {ROVA_LOG_LEVEL_CRIT, "critical"},
}};

const level_name* find_level(uint32_t level)
{
    const auto* const found =
        std::find_if(record_levels.begin(), record_levels.end(),
                     [level](const level_name& each) { return each.level == level; });
    return found != record_levels.end() ? found : nullptr;
}

// The variables below are constant-initialised and never destroyed, since other libraries log from
// constructors that run before those of this library and from destructors that run after its own.
// In a forked child they are consistent, whatever other threads were doing.

std::atomic<uint32_t> threshold{ROVA_LOG_LEVEL_WARNING};

// ---- Sources ---------------------------------------------------------------------------------

/** A registered source. It points to the one that was registered before it. */
struct log_source {
    std::string name;
    int number;
    const log_source* previous;
};

/** The built-in sources by number; registered sources follow. */
constexpr std::array<const char*, 3> known_sources = {"UNREGISTERED", "CORE::HEADER",
                                                      "CORE::PLATFORM"};

std::atomic<const log_source*> last_source{nullptr};

int add_source(const char* name)
{
    auto added = std::make_unique<log_source>(log_source{name, 0, last_source.load()});
    do {
        added->number = added->previous != nullptr ? added->previous->number : log_source_platform;
        if (added->number == INT_MAX) {
            fail(ROVA_ERROR_FULL, ROVA_HERE, "no number is left for the log source %s", name);
        }
        ++added->number;
    } while (!last_source.compare_exchange_weak(added->previous, added.get()));
    return added.release()->number;
}

const char* name_of_source(int number)
{
    for (const log_source* each = last_source.load(); each != nullptr; each = each->previous) {
        if (each->number == number) {
            return each->name.c_str();
        }
    }
    const bool known = number >= 0 && static_cast<size_t>(number) < known_sources.size();
    return known_sources[static_cast<size_t>(known ? number : log_source_unregistered)];
}

// ---- Where records go ------------------------------------------------------------------------

/** NULL means standard error. */
struct program_sink {
    rova_platform_log_sink function;
    void* user;
};

/** Held while a record is written and while the sink is changed. */
std::mutex output_mutex;

/** A new sink is stored beside the old one before it is chosen, so that one is always valid. */
std::array<program_sink, 2> sinks = {};
std::atomic<size_t> chosen_sink{0};

/** In a child, the thread that held the mutex may not exist. What it protects is consistent. */
void free_output_mutex()
{
    new (&output_mutex) std::mutex;
}

__attribute__((constructor(101))) void prepare_for_forks()
{
    // If memory runs out here, a child forked while another thread logs is not prepared for it.
    static_cast<void>(::pthread_atfork(nullptr, nullptr, free_output_mutex));
}

class output_lock {
public:
    output_lock() { output_mutex.lock(); }
    output_lock(const output_lock&) = delete;
    output_lock& operator=(const output_lock&) = delete;
    ~output_lock()
    {
        // In a child that the sink has forked, this is a different mutex.
        if (m_generation == process_generation()) {
            output_mutex.unlock();
        }
    }

private:
    uint64_t m_generation = process_generation();
};

void set_sink(rova_platform_log_sink function, void* user)
{
    const output_lock lock;
    const size_t other = 1 - chosen_sink.load();
    sinks.at(other) = {function, user};
    chosen_sink.store(other);
}

rova_error_t write_line(const rova_platform_log_record& record, const char* level) noexcept
{
    line_writer line(STDERR_FILENO);
    line.append_time();
    line.append(" ");
    line.append(level);
    line.append(" [");
    line.append_escaped(record.source);
    line.append("] ");
    line.append_escaped(record.file);
    line.append(":");
    line.append_number(record.line);
    line.append(" ");
    line.append_escaped(record.function);
    line.append(": ");
    line.append_escaped(record.message);
    line.append("\n");
    return line.finish() ? ROVA_SUCCESS : ROVA_ERROR_IO_FAILED;
}

rova_error_t write_record(const rova_platform_log_record& record, const char* level)
{
    const output_lock lock;
    const program_sink sink = sinks.at(chosen_sink.load());
    if (sink.function == nullptr) {
        return write_line(record, level);
    }
    sink.function(&record, sink.user);
    return ROVA_SUCCESS;
}

// ---- Records ---------------------------------------------------------------------------------

/** The text of one record. If memory runs out, a long text is cut short rather than lost. */
class formatted_text {
public:
    formatted_text(const char* format, std::va_list arguments) __attribute__((format(printf, 2, 0)))
    {
        std::va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(m_short.data(), m_short.size(), format, arguments);
        if (length < 0) {
            std::snprintf(m_short.data(), m_short.size(), "%s", format);
        } else if (static_cast<size_t>(length) >= m_short.size()) {
            const size_t size = static_cast<size_t>(length) + 1;
            m_long.reset(new (std::nothrow) char[size]);
            if (m_long != nullptr) {
                std::vsnprintf(m_long.get(), size, format, again);
            }
        }
        va_end(again);
    }

    const char* c_str() const { return m_long != nullptr ? m_long.get() : m_short.data(); }

private:
    std::array<char, 512> m_short = {};
    std::unique_ptr<char[]> m_long;
};

}  // namespace
}  // namespace platform

rova_error_t priv_rova_log_developer(uint32_t level, int source, const char* file, int line,
                                     const char* function, const char* format, ...)
{
    if (level > platform::threshold.load(std::memory_order_relaxed)) {
        return ROVA_SUCCESS;
    }
    const platform::cancellation_pause pause;
    const platform::level_name* const known = platform::find_level(level);
    if (known == nullptr || format == nullptr) {
        return ROVA_ERROR_INVALID_VALUE;
    }
    std::va_list arguments;
    va_start(arguments, format);
    const platform::formatted_text text(format, arguments);
    va_end(arguments);
    const rova_platform_log_record record = {
        level, platform::name_of_source(source),    file != nullptr ? file : "",
        line,  function != nullptr ? function : "", text.c_str()};
    try {
        return platform::write_record(record, known->name);
    } catch (...) {
        // The program's sink has thrown, which is not allowed.
        return platform::write_line(record, known->name);
    }
}

int priv_rova_log_get_header_source(void)
{
    return platform::log_source_core_header;
}

rova_error_t rova_log_register_source(const char* source_name, int* source)
{
    return platform::guarded(ROVA_HERE, "Failed to register a log source",
                             [=](platform::location here) {
                                 platform::check_not_null(source_name, "source_name", here);
                                 platform::check_not_null(source, "source", here);
                                 *source = platform::add_source(source_name);
                             });
}

rova_error_t rova_platform_log_set_sink(rova_platform_log_sink sink, void* user)
{
    return platform::guarded(ROVA_HERE, "Failed to set the log sink",
                             [=](platform::location) { platform::set_sink(sink, user); });
}

rova_error_t rova_platform_log_set_level(uint32_t level)
{
    return platform::guarded(
        ROVA_HERE, "Failed to set the log level", [=](platform::location here) {
            if (level != ROVA_LOG_LEVEL_DISABLE && platform::find_level(level) == nullptr) {
                platform::fail(ROVA_ERROR_INVALID_VALUE, here,
                               "%u is not a log level: the levels are 10, 20, ..., 70", level);
            }
            platform::threshold.store(level, std::memory_order_relaxed);
        });
}

uint32_t rova_platform_log_get_level(void)
{
    return platform::threshold.load(std::memory_order_relaxed);
}
