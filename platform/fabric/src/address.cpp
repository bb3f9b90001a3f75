#include "address.hpp"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "failure.hpp"
#include "mapping.hpp"

namespace fabric {
namespace {

std::optional<ip_address> parse_address(const std::string& text)
{
    for (const sa_family_t family : {sa_family_t{AF_INET}, sa_family_t{AF_INET6}}) {
        ip_address address = {family, {}};
        if (::inet_pton(family, text.c_str(), address.bytes.data()) == 1) {
            return address;
        }
    }
    return std::nullopt;
}

bool is_within(const ip_address& address, const char* base, unsigned prefix_length)
{
    return network{*parse_address(base), prefix_length}.contains(address);
}

/** Whether a socket can be bound to the address on this host. */
bool is_own(const ip_address& address)
{
    const platform::file_descriptor socket(::socket(address.family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.get() < 0) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                       "cannot make a socket for the address %s: %s", address.text().c_str(),
                       std::strerror(errno));
    }
    const socket_address at(address, 0);
    return ::bind(socket.get(), at.get(), at.length()) == 0;
}

unsigned count_leading_ones(const ip_address& mask)
{
    unsigned count = 0;
    while (count < mask.length() * 8 && (mask.bytes.at(count / 8) << (count % 8) & 0x80) != 0) {
        ++count;
    }
    return count;
}

std::optional<ip_address> parse_interface_address(const sockaddr* address)
{
    if (address == nullptr) {
        return std::nullopt;
    }
    const auto parsed = parse_sockaddr(
        address, address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    return parsed ? std::make_optional(parsed->first) : std::nullopt;
}

}  // namespace

std::string ip_address::text() const
{
    std::array<char, INET6_ADDRSTRLEN> text = {};
    return ::inet_ntop(family, bytes.data(), text.data(), text.size()) != nullptr ? text.data()
                                                                                  : "";
}

bool operator==(const ip_address& left, const ip_address& right)
{
    return left.family == right.family && left.bytes == right.bytes;
}

socket_address::socket_address(const ip_address& address, uint16_t port)
{
    if (address.family == AF_INET) {
        sockaddr_in inet = {};
        inet.sin_family = AF_INET;
        inet.sin_port = htons(port);
        std::memcpy(&inet.sin_addr, address.bytes.data(), sizeof(inet.sin_addr));
        std::memcpy(&m_storage, &inet, sizeof(inet));
        m_length = sizeof(inet);
    } else {
        sockaddr_in6 inet6 = {};
        inet6.sin6_family = AF_INET6;
        inet6.sin6_port = htons(port);
        std::memcpy(&inet6.sin6_addr, address.bytes.data(), sizeof(inet6.sin6_addr));
        std::memcpy(&m_storage, &inet6, sizeof(inet6));
        m_length = sizeof(inet6);
    }
}

std::optional<std::pair<ip_address, uint16_t>> parse_sockaddr(const void* bytes, size_t length)
{
    sockaddr_in inet = {};
    sockaddr_in6 inet6 = {};
    sa_family_t family = AF_UNSPEC;
    if (bytes != nullptr && length >= sizeof(family)) {
        std::memcpy(&family, bytes, sizeof(family));
    }
    ip_address address = {family, {}};
    if (family == AF_INET && length >= sizeof(inet)) {
        std::memcpy(&inet, bytes, sizeof(inet));
        std::memcpy(address.bytes.data(), &inet.sin_addr, sizeof(inet.sin_addr));
        return std::make_pair(address, ntohs(inet.sin_port));
    }
    if (family == AF_INET6 && length >= sizeof(inet6)) {
        std::memcpy(&inet6, bytes, sizeof(inet6));
        std::memcpy(address.bytes.data(), &inet6.sin6_addr, sizeof(inet6.sin6_addr));
        return std::make_pair(address, ntohs(inet6.sin6_port));
    }
    return std::nullopt;
}

bool network::contains(const ip_address& address) const
{
    const auto differs = [&](unsigned bit) {
        return ((address.bytes.at(bit / 8) ^ base.bytes.at(bit / 8)) << (bit % 8) & 0x80) != 0;
    };
    unsigned bit = 0;
    while (bit < prefix_length && !differs(bit)) {
        ++bit;
    }
    return address.family == base.family && bit == prefix_length;
}

const char* reason_against(const ip_address& address)
{
    struct kind {
        const char* base;
        unsigned prefix_length;
        const char* reason;
    };
    for (const kind& each : {
             kind{"0.0.0.0", 8, "it stands for every network"},
             kind{"::", 128, "it stands for every network"},
             kind{"224.0.0.0", 4, "it is a multicast address"},
             kind{"ff00::", 8, "it is a multicast address"},
             kind{"255.255.255.255", 32, "it is a broadcast address"},
             kind{"fe80::", 10, "a link-local address means something else on each host"},
             kind{"::ffff:0.0.0.0", 96, "write it as an IPv4 address"},
         })
    {
        if (is_within(address, each.base, each.prefix_length)) {
            return each.reason;
        }
    }
    return nullptr;
}

ip_address parse_own_address(const char* text)
{
    const auto address = parse_address(text);
    if (!address) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "\"%s\" is not an IP address", text);
    }
    if (const char* const reason = reason_against(*address)) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "a device cannot use the address %s: %s", text, reason);
    }
    if (!is_own(*address)) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "no interface of this host has the address %s", text);
    }
    return *address;
}

network parse_network(const char* text)
{
    const std::string_view whole = text;
    const size_t slash = std::min(whole.find('/'), whole.size());
    const auto base = parse_address(std::string(whole.substr(0, slash)));
    if (!base) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "\"%s\" is not a network", text);
    }
    const auto bits = static_cast<unsigned>(base->length() * 8);
    unsigned prefix_length = bits;
    if (slash < whole.size()) {
        const char* const end = whole.data() + whole.size();
        const auto parsed = std::from_chars(whole.data() + slash + 1, end, prefix_length);
        if (parsed.ec != std::errc() || parsed.ptr != end || prefix_length > bits) {
            platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                           "\"%s\" is not a network: the number of bits is wrong", text);
        }
    }
    return {*base, prefix_length};
}

network network_of(const ip_address& address)
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE,
                       "the interfaces of this host cannot be listed: %s", std::strerror(errno));
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> interfaces(list, &::freeifaddrs);
    // A loopback interface has addresses that are not listed.
    network best = {address, static_cast<unsigned>(address.length() * 8)};
    bool is_listed = false;
    for (const ifaddrs* each = list; each != nullptr; each = each->ifa_next) {
        const auto base = parse_interface_address(each->ifa_addr);
        const auto mask = parse_interface_address(each->ifa_netmask);
        if (!base || !mask || base->family != mask->family) {
            continue;
        }
        const network candidate = {*base, count_leading_ones(*mask)};
        if (*base == address || (!is_listed && candidate.contains(address))) {
            best = candidate;
            is_listed = is_listed || *base == address;
        }
    }
    return best;
}

}  // namespace fabric
