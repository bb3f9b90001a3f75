/*
 * A software device for one test, and what it says when it refuses.
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

inline constexpr uint32_t read_write = ROVA_SOFT_ACCESS_READ | ROVA_SOFT_ACCESS_WRITE;

/** What a call throws: the name of the code and the text; nothing when it throws nothing. */
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

/** Expects a pattern, as of file names, somewhere in a text. */
inline void expect_match(const std::string& text, const std::string& pattern)
{
    EXPECT_EQ(::fnmatch(("*" + pattern + "*").c_str(), text.c_str(), 0), 0) << pattern << "\n"
                                                                            << text;
}

struct soft_device {
    soft_device() { EXPECT_EQ(rova_soft_dev_open(&m_dev), ROVA_SUCCESS); }
    ~soft_device() { EXPECT_EQ(rova_soft_dev_close(m_dev), ROVA_SUCCESS); }
    soft_device(const soft_device&) = delete;
    soft_device& operator=(const soft_device&) = delete;

    device_abstraction::itlox_adapter* operator->() const
    {
        return m_dev->device_adapter->get_tlox_adapter().get();
    }

    registration add(std::string& memory, uint32_t access_flags = read_write) const
    {
        return (*this)->register_umem(memory.data(), memory.size(), access_flags, 1);
    }

    /** Reads into a text that was full of 'x'. */
    read_result read(uint32_t id, uint64_t offset, size_t size) const
    {
        std::string data(size, 'x');
        const rova_error_t code = rova_soft_dev_read(m_dev, id, offset, data.data(), size);
        return {code, data};
    }

    rova_error_t write(uint32_t id, uint64_t offset, const std::string& data) const
    {
        return rova_soft_dev_write(m_dev, id, offset, data.data(), data.size());
    }

    rova_dev* m_dev = nullptr;
};

}  // namespace support
