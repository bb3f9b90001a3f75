/*
 * The SDK as the commands use it: objects that end themselves, and failures with the text that
 * the library logged.
 */
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "failure.hpp"
#include "priv_rova_umem_api.h"
#include "rova_platform.h"
#include "rova_soft_platform.h"
#include "text.hpp"

namespace tool {

struct log_line {
    std::string level;
    std::string source;
    std::string function;
    std::string message;
};

/** From here on what the library logs is kept for `take_log`; if `shown`, also on standard error.
 */
void collect_log(bool shown);

/** What has been logged since the last call. */
std::vector<log_line> take_log();

/** A record's text without the code and the place in the source that follow it in a log. */
std::string short_text(const log_line& line, rova_error_t code);

/** A failure of the library; its text ends with the code's name. */
class sdk_failure : public failure {
public:
    sdk_failure(rova_error_t code, const std::string& text);
    rova_error_t error() const { return m_error; }

private:
    rova_error_t m_error;
};

/**
 * A failure that says what could not be done and why, unless the code is ROVA_SUCCESS. The reason
 * is the first record logged, that of the function that found the error.
 */
void check(rova_error_t code, const std::string& could_not);

template <auto end_function>
struct sdk_deleter {
    static constexpr auto call = end_function;

    template <typename object>
    void operator()(object* ended) const noexcept
    {
        static_cast<void>(end_function(ended));
    }
};

using device_ptr = std::unique_ptr<rova_dev, sdk_deleter<rova_platform_dev_close>>;
using gpu_ptr = std::unique_ptr<rova_gpu, sdk_deleter<rova_soft_gpu_close>>;
using accelerator_ptr = std::unique_ptr<rova_apx, sdk_deleter<rova_soft_apx_close>>;
using region_ptr = std::unique_ptr<priv_rova_umem, sdk_deleter<priv_rova_umem_destroy>>;

/** Makes an object by a call that takes the place to store it as its last argument. */
template <typename pointer, typename function, typename... arguments>
pointer make(const std::string& what, function create, arguments... given)
{
    typename pointer::pointer object = nullptr;
    check(create(given..., &object), "make " + what);
    return pointer(object);
}

/** Closes or destroys an object as the end of its life would, but reports a failure. */
template <typename pointer>
void reclaim(pointer& object, const std::string& what)
{
    check(pointer::deleter_type::call(object.get()), "end " + what);
    static_cast<void>(object.release());  // gone already
}

/** Memory of a GPU. */
class gpu_memory {
public:
    gpu_memory() = default;
    gpu_memory(rova_gpu* gpu, size_t size);
    gpu_memory(gpu_memory&& other) noexcept;
    gpu_memory& operator=(gpu_memory&& other) noexcept;
    gpu_memory(const gpu_memory&) = delete;
    gpu_memory& operator=(const gpu_memory&) = delete;
    ~gpu_memory();

    uint8_t* data() const { return static_cast<uint8_t*>(m_address); }
    void free();

private:
    rova_gpu* m_gpu = nullptr;
    void* m_address = nullptr;
};

/** The attributes of a region. */
struct region_facts {
    explicit region_facts(const priv_rova_umem* region);

    uint32_t id = 0;
    uint32_t size = 0;
    uint32_t page_size = 0;
    uint64_t base_offset = 0;
    void* address = nullptr;
};

/** The bytes of a region's export descriptor. */
byte_vector export_region(priv_rova_umem* region);

}  // namespace tool
