#include "endpoint.hpp"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstring>

#include <rdma/fi_cm.h>
#include <rdma/fi_eq.h>
#include <rdma/fi_errno.h>

#include "error.hpp"

namespace fabric {
namespace {

/** How many keys are tried. A domain has two at most, so more than a few are never in use. */
constexpr int most_keys = 16;

uint64_t random_key(size_t size)
{
    uint64_t key = 0;
    if (::getrandom(&key, sizeof(key), 0) != sizeof(key)) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                       "cannot get a random key from the kernel: %s", std::strerror(errno));
    }
    return size >= sizeof(key) ? key : key & ((uint64_t{1} << (size * 8)) - 1);
}

/**
 * Keys should be hard to guess, so they are random; a provider that chooses its own keys ignores
 * this one.
 */
fid_handle<fid_mr> register_memory(const provider& provider, fid_domain& domain, void* address,
                                   size_t size, uint64_t access)
{
    fid_mr* registered = nullptr;
    int result = -FI_ENOKEY;
    for (int attempt = 0; attempt < most_keys && result == -FI_ENOKEY; ++attempt) {
        const uint64_t key = random_key(provider.info()->domain_attr->mr_key_size);
        result = fi_mr_reg(&domain, address, size, access, 0, key, 0, &registered, nullptr);
    }
    check(result, ROVA_HERE, "the memory cannot be registered with the provider");
    return fid_handle<fid_mr>(registered);
}

fid_handle<fid_cq> open_queue(fid_domain& domain)
{
    fi_cq_attr attributes = {};
    attributes.format = FI_CQ_FORMAT_CONTEXT;
    attributes.wait_obj = FI_WAIT_FD;
    fid_cq* opened = nullptr;
    check(fi_cq_open(&domain, &attributes, &opened, nullptr), ROVA_HERE,
          "no completion queue can be opened");
    return fid_handle<fid_cq>(opened);
}

fid_handle<fid_av> open_peers(fid_domain& domain)
{
    fi_av_attr attributes = {};
    attributes.type = FI_AV_TABLE;
    attributes.count = 1;
    fid_av* opened = nullptr;
    check(fi_av_open(&domain, &attributes, &opened, nullptr), ROVA_HERE,
          "no table of addresses can be opened");
    return fid_handle<fid_av>(opened);
}

fid_handle<fid_ep> open_endpoint(const provider& provider, fid_domain& domain)
{
    fid_ep* opened = nullptr;
    check(fi_endpoint(&domain, provider.info(), &opened, nullptr), ROVA_HERE,
          "no endpoint can be opened");
    return fid_handle<fid_ep>(opened);
}

}  // namespace

registered_memory::registered_memory(const provider& provider, fid_domain& domain, void* address,
                                     size_t size, uint64_t access)
    : m_handle(register_memory(provider, domain, address, size, access)),
      m_remote{fi_mr_key(m_handle.get()),
               provider.has_virtual_addresses() ? reinterpret_cast<uintptr_t>(address) : 0}
{}

fid_handle<fid_domain> open_domain(const provider& provider)
{
    fid_domain* opened = nullptr;
    check(fi_domain(provider.fabric(), provider.info(), &opened, nullptr), ROVA_HERE,
          "no domain can be opened");
    return fid_handle<fid_domain>(opened);
}

endpoint::endpoint(const provider& provider, fid_domain& domain)
    : m_fabric(provider.fabric()),
      m_queue(open_queue(domain)),
      m_peers(open_peers(domain)),
      m_endpoint(open_endpoint(provider, domain))
{
    check(fi_ep_bind(get(), &m_peers->fid, 0), ROVA_HERE, "the endpoint cannot have peers");
    check(fi_ep_bind(get(), &m_queue->fid, FI_TRANSMIT | FI_RECV), ROVA_HERE,
          "the endpoint cannot have a queue");
    check(fi_enable(get()), ROVA_HERE, "the endpoint cannot be enabled");
    check(fi_control(&m_queue->fid, FI_GETWAIT, &m_descriptor), ROVA_HERE,
          "the queue has no descriptor");
}

std::pair<ip_address, uint16_t> endpoint::address() const
{
    std::array<uint8_t, sizeof(sockaddr_storage)> bytes = {};
    size_t length = bytes.size();
    check(fi_getname(&m_endpoint->fid, bytes.data(), &length), ROVA_HERE,
          "the endpoint has no address");
    const auto parsed = parse_sockaddr(bytes.data(), length);
    if (!parsed) {
        platform::fail(ROVA_ERROR_DRIVER, ROVA_HERE, "the endpoint's address is not an IP address");
    }
    return *parsed;
}

fi_addr_t endpoint::add_peer(const ip_address& address, uint16_t port)
{
    const socket_address bytes(address, port);
    fi_addr_t peer = FI_ADDR_UNSPEC;
    if (fi_av_insert(m_peers.get(), bytes.get(), 1, &peer, 0, nullptr) != 1) {
        platform::fail(ROVA_ERROR_DRIVER, ROVA_HERE, "the provider does not take the address %s",
                       address.text().c_str());
    }
    return peer;
}

std::optional<completion> endpoint::poll()
{
    fi_cq_entry entry = {};
    const ssize_t result = fi_cq_read(m_queue.get(), &entry, 1);
    if (result == 1) {
        return completion{entry.op_context, 0};
    }
    fi_cq_err_entry error = {};
    if (result == -FI_EAVAIL && fi_cq_readerr(m_queue.get(), &error, 0) == 1) {
        return completion{error.op_context, error.err != 0 ? error.err : FI_EOTHER};
    }
    return std::nullopt;
}

std::optional<completion> endpoint::wait(std::chrono::milliseconds limit)
{
    fi_cq_entry entry = {};
    const ssize_t result =
        fi_cq_sread(m_queue.get(), &entry, 1, nullptr, static_cast<int>(limit.count()));
    if (result == 1) {
        return completion{entry.op_context, 0};
    }
    return result == -FI_EAVAIL ? poll() : std::nullopt;
}

bool endpoint::may_block()
{
    fid* const queue = &m_queue->fid;
    fid* queues[] = {queue};
    return fi_trywait(m_fabric, queues, 1) == FI_SUCCESS;
}

}  // namespace fabric
