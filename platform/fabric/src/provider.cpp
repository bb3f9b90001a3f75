#include "provider.hpp"

#include <algorithm>
#include <array>
#include <new>
#include <string_view>

#include <rdma/fi_endpoint.h>

#include "error.hpp"
#include "failure.hpp"

namespace fabric {
namespace {

/**
 * The providers that are known to work, the best first. The first uses hardware; the others use
 * TCP.
 */
constexpr std::array<std::string_view, 5> known_providers = {"verbs;ofi_rxm", "net", "tcp",
                                                             "tcp;ofi_rxm", "sockets"};

std::string all_known()
{
    std::string list;
    for (const std::string_view name : known_providers) {
        list += list.empty() ? "" : ", ";
        list += name;
    }
    return list;
}

info_list make_hints()
{
    info_list hints(loaded_library().duplicate_info(nullptr));
    if (hints == nullptr) {
        throw std::bad_alloc();
    }
    hints->caps = FI_RMA | FI_READ | FI_WRITE | FI_REMOTE_READ | FI_REMOTE_WRITE | FI_MSG;
    hints->mode = FI_CONTEXT | FI_CONTEXT2;
    hints->ep_attr->type = FI_EP_RDM;
    hints->domain_attr->threading = FI_THREAD_SAFE;
    hints->domain_attr->mr_mode = FI_MR_LOCAL | FI_MR_ALLOCATED | FI_MR_VIRT_ADDR | FI_MR_PROV_KEY;
    return hints;
}

/** All endpoints that libfabric offers on an address. */
info_list list_endpoints(const ip_address& address)
{
    const info_list hints = make_hints();
    fi_info* list = nullptr;
    const int error =
        loaded_library().get_info(FI_VERSION(FI_MAJOR_VERSION, FI_MINOR_VERSION),
                                  address.text().c_str(), nullptr, FI_SOURCE, hints.get(), &list);
    if (error == -FI_ENOSYS) {
        platform::fail(ROVA_ERROR_INITIALIZATION, ROVA_HERE,
                       "the installed libfabric is older than %d.%d", FI_MAJOR_VERSION,
                       FI_MINOR_VERSION);
    }
    if (error != 0 && error != -FI_ENODATA) {
        fail_with(error, ROVA_HERE, "the providers for %s cannot be listed",
                  address.text().c_str());
    }
    return info_list(list);
}

bool is_on(const fi_info& info, const ip_address& address)
{
    const auto source = parse_sockaddr(info.src_addr, info.src_addrlen);
    return source && source->first == address;
}

/** A copy of the first entry of that name. */
info_list find_provider(const info_list& list, const ip_address& address, std::string_view name)
{
    for (const fi_info* each = list.get(); each != nullptr; each = each->next) {
        if (each->fabric_attr->prov_name == name && is_on(*each, address)) {
            info_list found(loaded_library().duplicate_info(each));
            if (found == nullptr) {
                throw std::bad_alloc();
            }
            return found;
        }
    }
    return nullptr;
}

info_list choose(const ip_address& address, const std::string& name)
{
    const bool is_known = std::count(known_providers.begin(), known_providers.end(), name) != 0;
    if (!name.empty() && !is_known) {
        platform::fail(ROVA_ERROR_NOT_SUPPORTED, ROVA_HERE,
                       "a device does not work with the provider \"%s\"; these work: %s",
                       name.c_str(), all_known().c_str());
    }
    const fork_delay delay;
    const info_list list = list_endpoints(address);
    for (const std::string_view candidate : known_providers) {
        if (name.empty() || name == candidate) {
            if (info_list found = find_provider(list, address, candidate)) {
                return found;
            }
        }
    }
    platform::fail(ROVA_ERROR_NOT_SUPPORTED, ROVA_HERE,
                   "libfabric has no provider for the address %s among: %s", address.text().c_str(),
                   name.empty() ? all_known().c_str() : name.c_str());
}

fabric_handle open_fabric(const fi_info& info)
{
    const fork_delay delay;
    fid_fabric* opened = nullptr;
    check(loaded_library().open_fabric(info.fabric_attr, &opened, nullptr), ROVA_HERE,
          "the provider cannot be opened");
    return fabric_handle(opened);
}

}  // namespace

provider::provider(const ip_address& address, const std::string& name)
    : m_info(choose(address, name)), m_fabric(open_fabric(*m_info))
{}

bool provider::is_over_tcp() const
{
    return name().rfind("verbs", 0) != 0;
}

}  // namespace fabric
