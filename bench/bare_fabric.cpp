#include "bare_fabric.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include <rdma/fabric.h>
#include <rdma/fi_cm.h>
#include <rdma/fi_domain.h>
#include <rdma/fi_endpoint.h>
#include <rdma/fi_errno.h>
#include <rdma/fi_rma.h>

#include "programs.hpp"

namespace bench {
namespace {

constexpr uint64_t key = 4711;
constexpr uint64_t other_key = key + 1;

/** Both as the device has them. */
constexpr size_t largest_piece = size_t{1} << 20;
constexpr size_t most_pieces = 2;

struct closer {
    template <class object_t>
    void operator()(object_t* object) const
    {
        fi_close(&object->fid);
    }
};
template <class object_t>
using handle = std::unique_ptr<object_t, closer>;

/** Calls a function of libfabric whose last but one argument receives an object. */
template <class object_t, class call_t>
handle<object_t> made(const call_t& call)
{
    object_t* object = nullptr;
    require(call(&object) == 0, "libfabric made no object");
    return handle<object_t>(object);
}

using info_list = std::unique_ptr<fi_info, decltype(&fi_freeinfo)>;

handle<fid_mr> register_memory(fid_domain* domain, void* memory, size_t size, uint64_t under_key)
{
    return made<fid_mr>([&](fid_mr** out) {
        return fi_mr_reg(domain, memory, size, FI_REMOTE_READ | FI_REMOTE_WRITE, 0, under_key, 0,
                         out, nullptr);
    });
}

info_list find_provider(const char* address)
{
    const info_list hints(fi_allocinfo(), fi_freeinfo);
    hints->caps = FI_RMA | FI_READ | FI_WRITE | FI_REMOTE_READ | FI_REMOTE_WRITE | FI_MSG;
    hints->ep_attr->type = FI_EP_RDM;
    hints->domain_attr->threading = FI_THREAD_SAFE;
    hints->fabric_attr->prov_name = ::strdup("net");
    fi_info* found = nullptr;
    require(fi_getinfo(FI_VERSION(FI_MAJOR_VERSION, FI_MINOR_VERSION), address, nullptr, FI_SOURCE,
                       hints.get(), &found) == 0,
            "there is no provider 'net'");
    return {found, fi_freeinfo};
}

}  // namespace

/** Closed in reverse order. */
struct bare_fabric::objects {
    objects(const char* address, std::vector<char>& memory) : info(find_provider(address))
    {
        fi_cq_attr queue_attributes = {};
        queue_attributes.format = FI_CQ_FORMAT_CONTEXT;
        queue_attributes.wait_obj = FI_WAIT_UNSPEC;
        fi_av_attr peers_attributes = {};
        peers_attributes.type = FI_AV_TABLE;
        fabric = made<fid_fabric>(
            [&](fid_fabric** out) { return fi_fabric(info->fabric_attr, out, nullptr); });
        domain = made<fid_domain>(
            [&](fid_domain** out) { return fi_domain(fabric.get(), info.get(), out, nullptr); });
        region = register_memory(domain.get(), memory.data(), memory.size(), key);
        queue = made<fid_cq>([&](fid_cq** out) {
            return fi_cq_open(domain.get(), &queue_attributes, out, nullptr);
        });
        peers = made<fid_av>([&](fid_av** out) {
            return fi_av_open(domain.get(), &peers_attributes, out, nullptr);
        });
        endpoint = made<fid_ep>(
            [&](fid_ep** out) { return fi_endpoint(domain.get(), info.get(), out, nullptr); });
        require(fi_ep_bind(endpoint.get(), &peers->fid, 0) == 0 &&
                    fi_ep_bind(endpoint.get(), &queue->fid, FI_TRANSMIT | FI_RECV) == 0 &&
                    fi_enable(endpoint.get()) == 0,
                "the endpoint was not enabled");
    }

    /** Begins to move a piece. Returns whether it could; if not, it can later. */
    bool post(bool reading, char* data, size_t offset, size_t size) const
    {
        iovec here = {data, size};
        void* descriptor = nullptr;
        const fi_rma_iov there = {offset, size, key};
        const fi_msg_rma message = {&here, &descriptor, 1, peer, &there, 1, nullptr, 0};
        const ssize_t result = reading
                                   ? fi_readmsg(endpoint.get(), &message, 0)
                                   : fi_writemsg(endpoint.get(), &message, FI_DELIVERY_COMPLETE);
        require(result == 0 || result == -FI_EAGAIN, "a transfer cannot begin");
        return result == 0;
    }

    info_list info;
    handle<fid_fabric> fabric;
    handle<fid_domain> domain;
    handle<fid_mr> region;
    handle<fid_cq> queue;
    handle<fid_av> peers;
    handle<fid_ep> endpoint;
    fi_addr_t peer = FI_ADDR_UNSPEC;
};

bare_fabric::bare_fabric(const char* address, size_t size)
    : transport(size), m_objects(std::make_unique<objects>(address, memory()))
{}

bare_fabric::~bare_fabric() = default;

std::string bare_fabric::name()
{
    std::array<char, 64> bytes = {};
    size_t length = bytes.size();
    require(fi_getname(&m_objects->endpoint->fid, bytes.data(), &length) == 0, "no address");
    return {bytes.data(), length};
}

void bare_fabric::serve()
{
    fi_cq_entry entry = {};
    for (;;) {
        fi_cq_sread(m_objects->queue.get(), &entry, 1, nullptr, 100);
    }
}

void bare_fabric::connect(const std::string& name)
{
    require(fi_av_insert(m_objects->peers.get(), name.data(), 1, &m_objects->peer, 0, nullptr) == 1,
            "an address is refused");
}

void bare_fabric::move(bool reading, void* data, size_t size)
{
    size_t posted = 0;
    size_t under_way = 0;
    const auto take_completion = [&] {
        fi_cq_entry entry = {};
        const ssize_t result = fi_cq_read(m_objects->queue.get(), &entry, 1);
        require(result == 1 || result == -FI_EAGAIN, "a transfer has failed");
        under_way -= result == 1 ? 1 : 0;
    };
    while (posted < size || under_way != 0) {
        if (posted == size || under_way == most_pieces) {
            take_completion();
            continue;
        }
        const size_t piece = std::min(size - posted, largest_piece);
        if (m_objects->post(reading, static_cast<char*>(data) + posted, posted, piece)) {
            posted += piece;
            ++under_way;
        } else {
            take_completion();
        }
    }
}

void bare_fabric::register_and_deregister(void* memory, size_t size)
{
    register_memory(m_objects->domain.get(), memory, size, other_key);
}

}  // namespace bench
