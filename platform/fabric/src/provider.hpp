/*
 * The libfabric provider that a device uses on its address.
 */
#pragma once

#include <memory>
#include <string>

#include <rdma/fi_domain.h>

#include "address.hpp"
#include "library.hpp"

namespace fabric {

struct info_freer {
    void operator()(fi_info* info) const noexcept { loaded_library().free_info(info); }
};
using info_list = std::unique_ptr<fi_info, info_freer>;

/** Closes what libfabric has opened. */
struct fid_closer {
    template <typename object_t>
    void operator()(object_t* object) const noexcept
    {
        fi_close(&object->fid);
    }
};
template <typename object_t>
using fid_handle = std::unique_ptr<object_t, fid_closer>;

/** libfabric may use locks of the whole process for this. */
struct fabric_closer {
    void operator()(fid_fabric* fabric) const noexcept
    {
        const fork_delay delay;
        fi_close(&fabric->fid);
    }
};
using fabric_handle = std::unique_ptr<fid_fabric, fabric_closer>;

class provider {
public:
    /** An empty `name` means the best one available. Throws if there is none for the address. */
    provider(const ip_address& address, const std::string& name);

    std::string name() const { return m_info->fabric_attr->prov_name; }
    fi_info* info() const { return m_info.get(); }
    fid_fabric* fabric() const { return m_fabric.get(); }

    /**
     * Whether its endpoints listen on a TCP port, so that a connection attempt shows whether one
     * exists.
     */
    bool is_over_tcp() const;
    bool is_over_rxm() const { return name().find("ofi_rxm") != std::string::npos; }

    /** Whether remote addresses are virtual addresses, and not offsets into the memory. */
    bool has_virtual_addresses() const { return has_mode(FI_MR_VIRT_ADDR); }
    bool chooses_keys() const { return has_mode(FI_MR_PROV_KEY); }
    bool needs_local_registration() const { return has_mode(FI_MR_LOCAL); }

    /**
     * Whether it may be given the caller's memory, which has to be out of use when the call
     * returns: after a time-out, only closing the endpoint can see to that. "sockets" moves
     * bytes in a thread of its own, an endpoint of ofi_rxm cannot always be closed, hardware needs
     * the memory registered, and "tcp" was never tried.
     */
    bool may_use_callers_memory() const { return name() == "net" && !needs_local_registration(); }

private:
    bool has_mode(int bit) const { return (m_info->domain_attr->mr_mode & bit) != 0; }

    info_list m_info;
    fabric_handle m_fabric;
};

}  // namespace fabric
