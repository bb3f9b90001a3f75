/*
 * What the log gets to hear during a test.
 */
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "priv_rova_log.h"
#include "rova_soft_platform.h"

namespace support {

using lines = std::vector<std::string>;

/**
 * Collects the records of every level while it lives, as lines of the form "function: text".
 *
 * A line of the class header begins with "[header] ", one of the exception converter with
 * "[converter] ", one of debug level with "debug "; whatever else is not an error of the
 * component's source file shows where it comes from.
 */
class log_records {
public:
    log_records()
    {
        rova_soft_log_set_sink(&log_records::sink, this);
        rova_soft_log_set_level(ROVA_LOG_LEVEL_TRACE);
        priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, priv_rova_log_get_header_source(), "", 0, "",
                                "tells the name of the header source");
        m_header_source = std::exchange(m_last_source, "");
        m_lines.clear();
    }
    ~log_records()
    {
        rova_soft_log_set_level(m_level_before);
        rova_soft_log_set_sink(nullptr, nullptr);
    }
    log_records(const log_records&) = delete;
    log_records& operator=(const log_records&) = delete;

    void forget() { m_lines.clear(); }

    /** Shows an address by name from now on; the others show as "%p". */
    void name(const void* object, const std::string& text) { m_names[object] = text; }

    /** Called with each record, to look at the state of things at that moment. */
    void on_record(std::function<void()> observer) { m_observer = std::move(observer); }

    /**
     * Compares what was logged since the last call. An expected line that ends in "..." is the
     * converter's report of an exception, whatever that says. "{err}" stands for the name of
     * `code`.
     */
    void expect(lines expected, rova_error_t code = ROVA_SUCCESS)
    {
        lines actual = std::exchange(m_lines, {});
        for (size_t i = 0; i < expected.size(); ++i) {
            if (const size_t at = expected[i].find("{err}"); at != std::string::npos) {
                expected[i].replace(at, 5, rova_error_get_name(code));
            }
            if (const size_t dots = expected[i].rfind("..."); dots != std::string::npos) {
                expected[i] = "[converter] " + expected[i].substr(0, dots) + ": ";
                if (i < actual.size() && actual[i].rfind(expected[i], 0) == 0) {
                    actual[i].resize(expected[i].size());
                }
            }
        }
        EXPECT_EQ(actual, expected);
    }

private:
    static void sink(const rova_soft_log_record* record, void* user)
    {
        auto& self = *static_cast<log_records*>(user);
        self.m_last_source = record->source;
        const std::string level = record->level == ROVA_LOG_LEVEL_ERROR   ? ""
                                  : record->level == ROVA_LOG_LEVEL_DEBUG ? "debug "
                                                                          : "other level ";
        self.m_lines.push_back(level + self.origin(*record) + record->function + ": " +
                               self.with_names(record->message));
        if (self.m_observer) {
            self.m_observer();
        }
    }

    std::string origin(const rova_soft_log_record& record) const
    {
        const std::string from = std::string(record.source) + " " + record.file;
        const std::string core = " libs/rova_common/core/";
        return from == "CORE::ROVA_UMEM" + core + "src/rova_umem.cpp"  ? ""
               : from == "SOFT::PLATFORM" + core + "src/rova_umem.cpp" ? "[converter] "
               : from == m_header_source + core + "include/private/priv_rova_umem.hpp"
                   ? "[header] "
                   : "[" + from + "] ";
    }

    std::string with_names(std::string text) const
    {
        for (size_t at = 0; (at = text.find("0x", at)) != std::string::npos;) {
            const size_t length = text.find_first_not_of("0123456789abcdef", at + 2) - at;
            const uint64_t number = std::stoull(text.substr(at, length), nullptr, 16);
            const auto name = m_names.find(reinterpret_cast<const void*>(number));
            text.replace(at, length, name != m_names.end() ? name->second : "%p");
        }
        return text;
    }

    uint32_t m_level_before = rova_soft_log_get_level();
    std::string m_last_source;
    std::string m_header_source;
    std::map<const void*, std::string> m_names;
    std::function<void()> m_observer;
    lines m_lines;
};

}  // namespace support
