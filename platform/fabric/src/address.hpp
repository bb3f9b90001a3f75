/*
 * IP addresses and networks: where a device may listen, and where it may connect.
 */
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fabric {

/** An address as a block holds it: the bytes are in network order; IPv4 uses the first four. */
struct ip_address {
    sa_family_t family; /**< AF_INET or AF_INET6 */
    std::array<uint8_t, 16> bytes;

    size_t length() const { return family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr); }
    std::string text() const;
};

bool operator==(const ip_address& left, const ip_address& right);

/** An address in the form that sockets and libfabric take. */
struct socket_address {
    socket_address(const ip_address& address, uint16_t port);

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_storage); }
    socklen_t length() const { return m_length; }

private:
    sockaddr_storage m_storage = {};
    socklen_t m_length;
};

/** The address and port in a sockaddr; nothing if its family is not IP. */
std::optional<std::pair<ip_address, uint16_t>> parse_sockaddr(const void* bytes, size_t length);

struct network {
    ip_address base;
    unsigned prefix_length;

    bool contains(const ip_address& address) const;
};

/** Why a region cannot be offered or reached at an address; NULL if it can. */
const char* reason_against(const ip_address& address);

/** Parses an address of this host; throws if a device cannot use it. */
ip_address parse_own_address(const char* text);

/** Parses "10.0.0.0/24", "fd00::/64" or a single address; throws if it is none of these. */
network parse_network(const char* text);

/** The network of an address of this host, as its interface defines it. */
network network_of(const ip_address& address);

}  // namespace fabric
