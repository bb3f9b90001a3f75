/*
 * UCX over TCP: memory that it maps, put and get.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <ucp/api/ucp.h>

#include "transport.hpp"

namespace bench {

/** Ends an object of UCX by calling a function on it. */
template <auto end>
struct ended_by {
    template <class object_t>
    void operator()(object_t* object) const
    {
        end(object);
    }
};
using ucx_context = std::unique_ptr<ucp_context, ended_by<ucp_cleanup>>;

/** A context that transfers over TCP only. */
ucx_context open_ucx();

/** Memory that UCX has mapped. */
class ucx_memory {
public:
    ucx_memory(ucp_context* context, void* memory, size_t size);
    ucx_memory(const ucx_memory&) = delete;
    ucx_memory& operator=(const ucx_memory&) = delete;
    ~ucx_memory();

    struct packed_key {
        std::unique_ptr<void, ended_by<ucp_rkey_buffer_release>> bytes;
        size_t length;
    };

    /** What another process needs to reach the memory. */
    packed_key pack() const;

private:
    ucp_context* m_context;
    ucp_mem_h m_mapped = nullptr;
};

class bare_ucx final : public transport {
public:
    /** UCX takes no address: the loopback device's is 127.0.0.1, for both processes. */
    bare_ucx(const char* address, size_t size);

    std::string name() override;
    [[noreturn]] void serve() override;
    void connect(const std::string& name) override;
    void move(bool reading, void* data, size_t size) override;

private:
    void finish(void* request) const;

    ucx_context m_context;
    std::unique_ptr<ucp_worker, ended_by<ucp_worker_destroy>> m_worker;
    ucx_memory m_offered;
    ucp_ep_h m_endpoint = nullptr; /**< ends with the worker */
    std::unique_ptr<ucp_rkey, ended_by<ucp_rkey_destroy>> m_key;
    uint64_t m_there = 0;
};

}  // namespace bench
