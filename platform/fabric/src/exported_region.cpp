#include "exported_region.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstring>

#include "failure.hpp"
#include "rova_platform.h"

namespace fabric {
namespace {

uint64_t rights_of_importers(uint32_t access_flags)
{
    uint64_t rights = 0;
    rights |= (access_flags & ROVA_PLATFORM_ACCESS_READ) != 0 ? FI_REMOTE_READ : 0;
    rights |= (access_flags & ROVA_PLATFORM_ACCESS_WRITE) != 0 ? FI_REMOTE_WRITE : 0;
    return rights;
}

std::optional<registered_memory> register_data(const provider& provider, fid_domain& domain,
                                               void* address, size_t size, uint32_t access_flags)
{
    const uint64_t rights = rights_of_importers(access_flags);
    if (rights == 0) {
        return std::nullopt;
    }
    return registered_memory(provider, domain, address, size, rights);
}

nonce random_nonce()
{
    nonce token = {};
    if (::getrandom(token.data(), token.size(), 0) != static_cast<ssize_t>(token.size())) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                       "cannot get random bytes from the kernel: %s", std::strerror(errno));
    }
    return token;
}

}  // namespace

exported_region::exported_region(const provider& provider, progress& server, void* address,
                                 size_t size, uint32_t access_flags)
    : m_domain(open_domain(provider)),
      m_data(register_data(provider, *m_domain, address, size, access_flags)),
      m_record{region_record_magic, random_nonce(), size, access_flags,
               m_data ? m_data->as_remote() : remote_memory{}},
      m_readable_record(provider, *m_domain, &m_record, sizeof(m_record), FI_REMOTE_READ),
      m_endpoint(provider, *m_domain),
      m_sockets(server.files(), m_endpoint.address().first, m_endpoint.address().second),
      m_served(server, m_endpoint)
{
    const auto [listens_at, port] = m_endpoint.address();
    m_block =
        to_bytes({provider.name(), listens_at, port, m_readable_record.as_remote(), m_record});
}

}  // namespace fabric
