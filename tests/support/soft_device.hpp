/*
 * A device for one test, mostly a software device, and the texts of its refusals.
 */
#pragma once

#include <fnmatch.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "rova_dev.hpp"
#include "rova_exception.hpp"
#include "rova_soft_platform.h"

namespace support {

using registration = std::pair<tlox_umem*, uint32_t>;
using read_result = std::pair<rova_error_t, std::string>;

inline constexpr uint32_t read_write = ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE;

/** The exception of a call: the name of its code and its text; empty if nothing is thrown. */
template <class call>
std::string refusal(const call& attempt)
{
    try {
        attempt();
        return "";
    } catch (const rova::exception& e) {
        return rova_error_get_name(e.error_code()) + std::string(" ") + e.message();
    }
}

/** Expects a text to contain a pattern, with wildcards as in file names. */
inline void expect_match(const std::string& text, const std::string& pattern)
{
    EXPECT_EQ(::fnmatch(("*" + pattern + "*").c_str(), text.c_str(), 0), 0) << pattern << "\n"
                                                                            << text;
}

struct open_device {
    open_device() = default;
    ~open_device() { EXPECT_EQ(rova_platform_dev_close(m_dev), ROVA_SUCCESS); }
    open_device(const open_device&) = delete;
    open_device& operator=(const open_device&) = delete;

    device_abstraction::itlox_adapter* operator->() const
    {
        return m_dev->device_adapter->get_tlox_adapter().get();
    }

    registration add(std::string& memory, uint32_t access_flags = read_write) const
    {
        return (*this)->register_umem(memory.data(), memory.size(), access_flags, 1);
    }

    /** Reads into a text that is filled with 'x'. */
    read_result read(uint32_t id, uint64_t offset, size_t size) const
    {
        std::string data(size, 'x');
        const rova_error_t code = rova_platform_dev_read(m_dev, id, offset, data.data(), size);
        return {code, data};
    }

    rova_error_t write(uint32_t id, uint64_t offset, const std::string& data) const
    {
        return rova_platform_dev_write(m_dev, id, offset, data.data(), data.size());
    }

    rova_dev* m_dev = nullptr;
};

struct soft_device : open_device {
    soft_device() { EXPECT_EQ(rova_soft_dev_open(&m_dev), ROVA_SUCCESS); }
};

}  // namespace support
