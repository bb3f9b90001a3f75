#include "log.hpp"

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
#include <shared_mutex>
#include <string>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include "failure.hpp"
#include "priv_rova_log.h"
#include "rova_soft_platform.h"

namespace {

constexpr const char* line_pattern = "%Y-%m-%d %H:%M:%S.%e %^%l%$ [%n] %g:%# %!: %v";

/** Levels of the SDK, at the place that the same level has in spdlog. */
constexpr std::array<uint32_t, 6> record_levels = {
    ROVA_LOG_LEVEL_TRACE,   ROVA_LOG_LEVEL_DEBUG, ROVA_LOG_LEVEL_INFO,
    ROVA_LOG_LEVEL_WARNING, ROVA_LOG_LEVEL_ERROR, ROVA_LOG_LEVEL_CRIT,
};

/** Constant-initialised, so that it holds before any constructor has run. */
std::atomic<uint32_t> threshold{ROVA_LOG_LEVEL_WARNING};

struct call_site {
    const char* file;
    int line;
    const char* function;
};

/** The text of one record. Without memory a long text is cut short rather than lost. */
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

/** Hands records to the program. The sink above it lets one in at a time. */
class program_sink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    program_sink(rova_soft_log_sink sink, void* user) : m_sink(sink), m_user(user) {}

protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        // The views end in a NUL: one is a logger's name, the other this service's own text.
        const rova_soft_log_record record = {record_levels.at(static_cast<size_t>(message.level)),
                                             message.logger_name.data(),
                                             message.source.filename,
                                             message.source.line,
                                             message.source.funcname,
                                             message.payload.data()};
        m_sink(&record, m_user);
    }

    void flush_() override {}

private:
    rova_soft_log_sink m_sink;
    void* m_user;
};

/** One spdlog logger per source, all of them with the same output. */
class log_service {
public:
    /**
     * Made by the first call, whenever that is, and never destroyed: other libraries log from
     * constructors that run before this one's and from destructors that run after them.
     */
    static log_service& instance()
    {
        static log_service* const service = std::make_unique<log_service>().release();
        return *service;
    }

    log_service() : m_output(std::make_shared<spdlog::sinks::dist_sink_mt>())
    {
        set_sink(nullptr, nullptr);
        for (const char* name : {"UNREGISTERED", "CORE::HEADER", "SOFT::PLATFORM"}) {
            add_source(name);
        }
    }

    int add_source(const char* name)
    {
        auto logger = std::make_unique<spdlog::logger>(name, m_output);
        logger->set_level(spdlog::level::trace);
        // What spdlog would print about a failed write goes back to this service instead.
        logger->set_error_handler([](const std::string&) { throw; });
        const std::lock_guard<std::shared_mutex> lock(m_mutex);
        if (m_loggers.size() >= INT_MAX) {
            soft::fail(ROVA_ERROR_FULL, ROVA_HERE, "no number left for log source %s", name);
        }
        m_loggers.push_back(std::move(logger));
        return static_cast<int>(m_loggers.size() - 1);
    }

    void set_sink(rova_soft_log_sink sink, void* user)
    {
        spdlog::sink_ptr output;
        if (sink != nullptr) {
            output = std::make_shared<program_sink>(sink, user);
        } else {
            output = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
            output->set_pattern(line_pattern);
        }
        // Waits for the record that is being written.
        m_output->set_sinks({std::move(output)});
    }

    void write(size_t level, int source, const call_site& site, const char* text)
    {
        logger_of(source).log(spdlog::source_loc(site.file, site.line, site.function),
                              static_cast<spdlog::level::level_enum>(level),
                              spdlog::string_view_t(text));
    }

private:
    spdlog::logger& logger_of(int source)
    {
        const std::shared_lock<std::shared_mutex> lock(m_mutex);
        const bool known = source > 0 && static_cast<size_t>(source) < m_loggers.size();
        return *m_loggers[static_cast<size_t>(known ? source : soft::log_source_unregistered)];
    }

    std::shared_ptr<spdlog::sinks::dist_sink_mt> m_output;
    std::shared_mutex m_mutex;
    std::vector<std::unique_ptr<spdlog::logger>> m_loggers;
};

rova_error_t write_record(size_t level, int source, const call_site& site,
                          const char* text) noexcept
{
    try {
        log_service::instance().write(level, source, site, text);
        return ROVA_SUCCESS;
    } catch (...) {
        // No memory, most likely. This needs none.
        const bool written = ::dprintf(STDERR_FILENO, "%s:%d %s: %s\n", site.file, site.line,
                                       site.function, text) >= 0;
        return written ? ROVA_SUCCESS : ROVA_ERROR_IO_FAILED;
    }
}

}  // namespace

rova_error_t priv_rova_log_developer(uint32_t level, int source, const char* file, int line,
                                     const char* function, const char* format, ...)
{
    if (level > threshold.load(std::memory_order_relaxed)) {
        return ROVA_SUCCESS;
    }
    const auto* known = std::find(record_levels.begin(), record_levels.end(), level);
    if (known == record_levels.end() || format == nullptr) {
        return ROVA_ERROR_INVALID_VALUE;
    }
    std::va_list arguments;
    va_start(arguments, format);
    const formatted_text text(format, arguments);
    va_end(arguments);
    const call_site site = {file != nullptr ? file : "", line, function != nullptr ? function : ""};
    return write_record(static_cast<size_t>(known - record_levels.begin()), source, site,
                        text.c_str());
}

int priv_rova_log_get_header_source(void)
{
    return soft::log_source_core_header;
}

rova_error_t rova_log_register_source(const char* source_name, int* source)
{
    return soft::guarded(ROVA_HERE, "Failed to register a log source", [=](soft::location here) {
        soft::check_not_null(source_name, "source_name", here);
        soft::check_not_null(source, "source", here);
        *source = log_service::instance().add_source(source_name);
    });
}

rova_error_t rova_soft_log_set_sink(rova_soft_log_sink sink, void* user)
{
    return soft::guarded(ROVA_HERE, "Failed to set the log sink",
                         [=](soft::location) { log_service::instance().set_sink(sink, user); });
}

rova_error_t rova_soft_log_set_level(uint32_t level)
{
    return soft::guarded(ROVA_HERE, "Failed to set the log level", [=](soft::location here) {
        if (level != ROVA_LOG_LEVEL_DISABLE &&
            std::find(record_levels.begin(), record_levels.end(), level) == record_levels.end())
        {
            soft::fail(ROVA_ERROR_INVALID_VALUE, here,
                       "there is no log level %u: the levels are 10, 20, up to 70", level);
        }
        threshold.store(level, std::memory_order_relaxed);
    });
}

uint32_t rova_soft_log_get_level(void)
{
    return threshold.load(std::memory_order_relaxed);
}
