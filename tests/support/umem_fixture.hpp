/*
 * The fixture for the tests of the flat functions: a scripted device, scripted layers and the log.
 */
#pragma once

#include <algorithm>

#include <gtest/gtest.h>

#include "priv_rova_umem.hpp"
#include "priv_rova_umem_api.h"
#include "rova_soft_platform.h"
#include "rova_umem.h"
#include "support/scripted_device.hpp"
#include "support/scripted_sub_devices.hpp"

namespace support {

using lines = std::vector<std::string>;

class umem_fixture : public testing::Test {
protected:
    umem_fixture()
    {
        m_layers.m_apx_dev = &m_device;
        rova_platform_log_set_sink(&umem_fixture::hear, this);
        rova_platform_log_set_level(ROVA_LOG_LEVEL_TRACE);
    }

    ~umem_fixture() override
    {
        EXPECT_EQ(m_device->live(), 0U);
        EXPECT_EQ(m_device.borrowers(), 0);
        expect_log({});
        rova_platform_log_set_level(ROVA_LOG_LEVEL_ERROR);
        rova_platform_log_set_sink(nullptr, nullptr);
    }

    /** A host region of 2 MiB in pages of 4096, with access flags 5. */
    priv_rova_umem* make_region()
    {
        priv_rova_umem* region = nullptr;
        EXPECT_EQ(priv_rova_umem_create_pg_sz(&m_device, m_address, 2097152, 4096, 5, &region),
                  ROVA_SUCCESS);
        m_device->take_calls();
        return region;
    }

    /** The records logged since the last call. */
    lines take_log() { return std::exchange(m_log, {}); }

    /**
     * Compares it with lines of the form "function: text". "{err}" stands for the name of `code`,
     * "{this}" for the address of `object`; without one, every address shows as "%p". "..." stands
     * for the text of the exception that the converter reports.
     *
     * Lines of debug level begin with "debug ", errors of the class header with "[header] "; any
     * other record that is not an error of the component's source file shows its origin.
     */
    void expect_log(lines expected, rova_error_t code = ROVA_SUCCESS, const void* object = nullptr)
    {
        lines heard = take_log();
        for (std::string& line : expected) {
            replace(line, "{err}", rova_error_get_name(code));
            replace(line, "{this}", object != nullptr ? testing::PrintToString(object) : "%p");
        }
        for (std::string& line : heard) {
            for (size_t at = 0; object == nullptr && (at = line.find("0x")) != std::string::npos;) {
                const size_t end = line.find_first_not_of("0123456789abcdef", at + 2);
                line.replace(at, std::min(end, line.size()) - at, "%p");
            }
        }
        EXPECT_EQ(heard, expected);
    }

    // Never touched: the scripted device does not look at memory.
    void* const m_address = reinterpret_cast<void*>(0x7000);
    // The value of an output that must not be written.
    priv_rova_umem* const m_untouched = reinterpret_cast<priv_rova_umem*>(0xDEAD);

    scripted_layers m_layers;
    scripted_device m_device;

private:
    static void hear(const rova_platform_log_record* record, void* user)
    {
        auto& self = *static_cast<umem_fixture*>(user);
        std::string text = record->message;
        if (std::string(record->source) == "CORE::PLATFORM") {
            text = text.substr(0, text.find(": ")) + "...";
        }
        text = std::to_string(record->level) + " " + record->source + " " + record->file + " " +
               record->function + ": " + text;
        replace(text, "libs/rova_common/core/", "");
        replace(text, "30 CORE::ROVA_UMEM src/rova_umem.cpp ", "");
        replace(text, "30 CORE::PLATFORM src/rova_umem.cpp ", "");
        replace(text, "60 CORE::ROVA_UMEM src/rova_umem.cpp ", "debug ");
        replace(text, "30 CORE::HEADER include/private/priv_rova_umem.hpp ", "[header] ");
        self.m_log.push_back(text);
        EXPECT_EQ(self.m_device.borrowers(), 0) << "the adapter is held for too long";
    }

    static void replace(std::string& line, const std::string& text, const std::string& shown)
    {
        if (const size_t at = line.find(text); at != std::string::npos) {
            line.replace(at, text.size(), shown);
        }
    }

    lines m_log;
};

}  // namespace support
