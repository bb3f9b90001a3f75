/*
 * A device that records its calls, and fails on demand.
 */
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "rova_dev.hpp"
#include "rova_exception.hpp"

namespace support {

/** A way to fail, and the code that callers see then. */
struct failure {
    const char* label;
    rova_error_t code;
    std::function<void()> raise;
};

inline failure failing_with(rova_error_t code)
{
    return {"with a code", code, [=] { throw rova::exception(code, "scripted", ROVA_HERE); }};
}

inline const std::vector<failure> every_failure = {
    failing_with(ROVA_ERROR_DRIVER),
    {"with a standard exception", ROVA_ERROR_UNEXPECTED,
     [] { throw std::runtime_error("scripted"); }},
    {"with a thrown number", ROVA_ERROR_UNEXPECTED, [] { throw 42; }},
    {"without memory", ROVA_ERROR_NO_MEMORY, [] { throw std::bad_alloc(); }},
};

/** The object adapter. Handles are umem ids, 100, 101, ...; nothing is ever read through them. */
class scripted_tlox final : public device_abstraction::itlox_adapter {
public:
    using result = std::pair<tlox_umem*, uint32_t>;

    result register_umem(void* address, size_t size, uint32_t flags, size_t page_size) override
    {
        return add("register_umem", address, size, flags, page_size);
    }

    result register_umem_dmabuf(int fd, void* address, size_t offset, size_t size, uint32_t flags,
                                size_t page_size) override
    {
        return add("register_umem_dmabuf", fd, address, offset, size, flags, page_size);
    }

    result import_umem(const uint8_t* block, size_t block_length) override
    {
        m_imported.assign(block, block + block_length);
        return add("import_umem", block_length);
    }

    std::vector<uint8_t> export_umem(tlox_umem* umem) override
    {
        note("export_umem", reinterpret_cast<uintptr_t>(umem));
        return m_block;
    }

    rova_error_t deregister_umem(tlox_umem* umem) noexcept override
    try {
        remove("deregister_umem", umem);
        return ROVA_SUCCESS;
    } catch (...) {
        return m_raised;
    }

    void release_umem(tlox_umem* umem) override { remove("release_umem", umem); }

    /** Makes an operation fail from now on, or "call 3", the third since take_calls. */
    void fail(const std::string& part, const failure& how) { m_failures[part] = how; }
    void recover() { m_failures.clear(); }

    /** The calls since the last time, in words. */
    std::vector<std::string> take_calls() { return std::exchange(m_calls, {}); }

    size_t live() const { return m_live.size(); }

    std::vector<uint8_t> m_block = {1, 0, 0, 0, 0x2A, 0x10, 0, 0x80};  // the exported block
    std::vector<uint8_t> m_imported;                                   // the block imported last
    rova_error_t m_raised = ROVA_ERROR_UNKNOWN;                        // the last failure

private:
    // Records the call, and fails it if it is the one to fail.
    template <class... arguments>
    void note(const char* operation, const arguments&... values)
    {
        std::ostringstream text;
        text << operation;
        ((text << ' ' << values), ...);
        m_calls.push_back(text.str());
        const std::string nth = "call " + std::to_string(m_calls.size());
        for (const auto& [part, how] : m_failures) {
            if (part == operation || part == nth) {
                m_raised = how.code;
                how.raise();
            }
        }
    }

    template <class... arguments>
    result add(const char* operation, const arguments&... values)
    {
        note(operation, values...);
        const auto umem = reinterpret_cast<tlox_umem*>(uintptr_t{m_next_id});
        m_live.insert(umem);
        return {umem, m_next_id++};
    }

    void remove(const char* operation, tlox_umem* umem)
    {
        note(operation, reinterpret_cast<uintptr_t>(umem));
        if (m_live.erase(umem) == 0) {
            m_raised = ROVA_ERROR_NOT_FOUND;
            throw rova::exception(m_raised, "no such registration", ROVA_HERE);
        }
    }

    uint32_t m_next_id = 100;
    std::set<tlox_umem*> m_live;
    std::vector<std::string> m_calls;
    std::map<std::string, failure> m_failures;
};

/** The device around it. */
class scripted_device : public rova_dev, private device_abstraction::idevice_adapter {
public:
    // Whoever holds the device owns it; its adapter only refers to it.
    scripted_device() { device_adapter = {std::shared_ptr<void>(), this}; }

    scripted_tlox* operator->() const { return m_tlox.get(); }

    /** How many references to the adapter exist beside the device's own. */
    long borrowers() const { return m_tlox.use_count() - 1; }

private:
    std::shared_ptr<device_abstraction::itlox_adapter> get_tlox_adapter() noexcept override
    {
        return m_tlox;
    }

    const std::shared_ptr<scripted_tlox> m_tlox = std::make_shared<scripted_tlox>();
};

}  // namespace support
