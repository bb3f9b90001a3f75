#include "bare_ucx.hpp"

#include <cstring>

#include "programs.hpp"

namespace bench {
namespace {

void check(ucs_status_t status)
{
    require(status == UCS_OK, ucs_status_string(status));
}

/** What both processes agree on, so it can lie in a message as it is. */
struct name_header {
    uint64_t memory;
    uint64_t key_length;
};

ucp_worker* open_worker(ucp_context* context)
{
    const ucp_worker_params_t parameters = {};
    ucp_worker_h worker = nullptr;
    check(ucp_worker_create(context, &parameters, &worker));
    return worker;
}

}  // namespace

ucx_context open_ucx()
{
    ucp_config_t* read = nullptr;
    check(ucp_config_read(nullptr, nullptr, &read));
    const std::unique_ptr<ucp_config_t, ended_by<ucp_config_release>> config(read);
    // Left to itself, UCX would notice that both processes run on one host, and move the bytes
    // through shared memory. It would not take the loopback device either.
    check(ucp_config_modify(config.get(), "TLS", "tcp"));
    check(ucp_config_modify(config.get(), "NET_DEVICES", "lo"));

    ucp_params_t parameters = {};
    parameters.field_mask = UCP_PARAM_FIELD_FEATURES;
    parameters.features = UCP_FEATURE_RMA | UCP_FEATURE_WAKEUP;
    ucp_context_h context = nullptr;
    check(ucp_init(&parameters, config.get(), &context));
    return ucx_context(context);
}

ucx_memory::ucx_memory(ucp_context* context, void* memory, size_t size) : m_context(context)
{
    ucp_mem_map_params_t parameters = {};
    parameters.field_mask = UCP_MEM_MAP_PARAM_FIELD_ADDRESS | UCP_MEM_MAP_PARAM_FIELD_LENGTH;
    parameters.address = memory;
    parameters.length = size;
    check(ucp_mem_map(m_context, &parameters, &m_mapped));
}

ucx_memory::~ucx_memory()
{
    check(ucp_mem_unmap(m_context, m_mapped));
}

ucx_memory::packed_key ucx_memory::pack() const
{
    void* bytes = nullptr;
    size_t length = 0;
    check(ucp_rkey_pack(m_context, m_mapped, &bytes, &length));
    packed_key key;
    key.bytes.reset(bytes);
    key.length = length;
    return key;
}

bare_ucx::bare_ucx(const char* /*address*/, size_t size)
    : transport(size),
      m_context(open_ucx()),
      m_worker(open_worker(m_context.get())),
      m_offered(m_context.get(), memory().data(), size)
{}

std::string bare_ucx::name()
{
    const auto key = m_offered.pack();
    ucp_address_t* address = nullptr;
    size_t address_length = 0;
    check(ucp_worker_get_address(m_worker.get(), &address, &address_length));
    const name_header header = {reinterpret_cast<uintptr_t>(memory().data()), key.length};
    std::string name(reinterpret_cast<const char*>(&header), sizeof(header));
    name.append(static_cast<const char*>(key.bytes.get()), key.length);
    name.append(reinterpret_cast<const char*>(address), address_length);
    ucp_worker_release_address(m_worker.get(), address);
    return name;
}

/** Sleeps while there is nothing to do, as the other transports' threads do. */
void bare_ucx::serve()
{
    for (;;) {
        while (ucp_worker_progress(m_worker.get()) != 0) {
        }
        check(ucp_worker_wait(m_worker.get()));
    }
}

void bare_ucx::connect(const std::string& name)
{
    name_header header = {};
    std::memcpy(&header, name.data(), sizeof(header));
    const char* const key = name.data() + sizeof(header);
    ucp_ep_params_t parameters = {};
    parameters.field_mask = UCP_EP_PARAM_FIELD_REMOTE_ADDRESS;
    parameters.address = reinterpret_cast<const ucp_address_t*>(key + header.key_length);
    check(ucp_ep_create(m_worker.get(), &parameters, &m_endpoint));
    ucp_rkey_h unpacked = nullptr;
    check(ucp_ep_rkey_unpack(m_endpoint, key, &unpacked));
    m_key.reset(unpacked);
    m_there = header.memory;
}

void bare_ucx::move(bool reading, void* data, size_t size)
{
    const ucp_request_param_t defaults = {};
    if (reading) {
        finish(ucp_get_nbx(m_endpoint, data, size, m_there, m_key.get(), &defaults));
        return;
    }
    // A put ends when its bytes have left; a flush tells when they have arrived.
    void* const put = ucp_put_nbx(m_endpoint, data, size, m_there, m_key.get(), &defaults);
    finish(ucp_ep_flush_nbx(m_endpoint, &defaults));
    finish(put);
}

/** Waits for the end of what was begun. */
void bare_ucx::finish(void* request) const
{
    if (request == nullptr) {
        return;
    }
    if (UCS_PTR_IS_ERR(request)) {
        check(UCS_PTR_STATUS(request));
    }
    ucs_status_t status = UCS_INPROGRESS;
    while ((status = ucp_request_check_status(request)) == UCS_INPROGRESS) {
        ucp_worker_progress(m_worker.get());
    }
    ucp_request_free(request);
    check(status);
}

}  // namespace bench
