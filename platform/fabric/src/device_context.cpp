#include "device_context.hpp"

#include <algorithm>

#include "failure.hpp"
#include "rova_fabric_platform.h"

namespace fabric {
namespace {

constexpr std::chrono::milliseconds default_timeout(5000);

ip_address address_in(const rova_fabric_options& options)
{
    platform::check_not_null(options.address, "options->address", ROVA_HERE);
    return parse_own_address(options.address);
}

std::vector<network> networks_in(const rova_fabric_options& options, const ip_address& address)
{
    if (options.allowed_network_count == 0) {
        return {network_of(address)};
    }
    platform::check_not_null(options.allowed_networks, "options->allowed_networks", ROVA_HERE);
    std::vector<network> networks;
    for (size_t i = 0; i < options.allowed_network_count; ++i) {
        platform::check_not_null(options.allowed_networks[i], "options->allowed_networks[]",
                                 ROVA_HERE);
        networks.push_back(parse_network(options.allowed_networks[i]));
    }
    return networks;
}

}  // namespace

device_context::device_context(const rova_fabric_options& options)
    : m_address(address_in(options)),
      m_allowed(networks_in(options, m_address)),
      m_timeout(options.timeout_ms != 0 ? std::chrono::milliseconds(options.timeout_ms)
                                        : default_timeout),
      m_provider(m_address, options.provider != nullptr ? options.provider : "")
{}

bool device_context::allows(const ip_address& address) const
{
    return std::any_of(m_allowed.begin(), m_allowed.end(),
                       [&](const network& each) { return each.contains(address); });
}

progress& device_context::server()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_server) {
        m_server.emplace();
    }
    return *m_server;
}

}  // namespace fabric
