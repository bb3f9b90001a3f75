#include "devices.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include "failure.hpp"

namespace tool {
namespace {

constexpr const char* fabric_library = "librova_fabric_platform.so.0";
constexpr const char* fabric_package = "librova-fabric-platform0";
constexpr std::string_view fabric_prefix = "fabric:";

/** The fabric platform, loaded at its first use and never unloaded. */
class fabric_platform {
public:
    static const fabric_platform& instance()
    {
        static const fabric_platform platform;
        return platform;
    }

    const std::string& error() const { return m_error; }

    decltype(&rova_fabric_dev_open) open = nullptr;
    decltype(&rova_fabric_block_explain) explain = nullptr;

private:
    fabric_platform()
    {
        void* library = dlopen(fabric_library, RTLD_NOW);
        if (library == nullptr) {
            const char* reason = dlerror();
            m_error = reason != nullptr ? reason : "unknown reason";
            return;
        }
        open = reinterpret_cast<decltype(open)>(dlsym(library, "rova_fabric_dev_open"));
        explain = reinterpret_cast<decltype(explain)>(dlsym(library, "rova_fabric_block_explain"));
        if (open == nullptr || explain == nullptr) {
            m_error = std::string(fabric_library) + " is of another version than this program";
        }
    }

    std::string m_error;
};

const fabric_platform& loaded_fabric_platform()
{
    const fabric_platform& platform = fabric_platform::instance();
    if (!platform.error().empty()) {
        throw failure("a fabric device cannot be used here: " + platform.error() +
                      "\nInstall the package " + fabric_package + ".");
    }
    return platform;
}

/** An option that would have no effect is a mistake, and might be one of safety. */
void refuse_fabric_options(const options& given, const std::string& reason)
{
    if (const auto option = given_fabric_option(given)) {
        throw failure(*option + " is for fabric devices, and " + reason, exit_code::usage);
    }
}

device_ptr open_fabric_device(const std::string& address, const options& given)
{
    std::vector<const char*> networks;
    std::transform(given.allowed_networks.begin(), given.allowed_networks.end(),
                   std::back_inserter(networks),
                   [](const std::string& network) { return network.c_str(); });
    rova_fabric_options wanted{};
    wanted.address = address.c_str();
    wanted.provider = given.provider ? given.provider->c_str() : nullptr;
    wanted.allowed_networks = networks.empty() ? nullptr : networks.data();
    wanted.allowed_network_count = networks.size();
    wanted.timeout_ms = static_cast<uint32_t>(
        std::min<uint64_t>(given.time_limit.value_or(0), UINT32_MAX / 1000) * 1000);
    try {
        return make<device_ptr>("a device on " + in_quotes(address), loaded_fabric_platform().open,
                                &wanted);
    } catch (const sdk_failure& error) {
        const bool is_usage =
            error.error() == ROVA_ERROR_INVALID_VALUE ||
            (error.error() == ROVA_ERROR_NOT_SUPPORTED && given.provider.has_value());
        throw failure(error.what(), is_usage ? exit_code::usage : error.code());
    }
}

}  // namespace

std::optional<device_name> named_device(const options& given)
{
    if (!given.device) {
        return std::nullopt;
    }
    const std::string& name = *given.device;
    if (name == "soft") {
        return device_name{ROVA_PLATFORM_BLOCK_SOFT, ""};
    }
    if (name.compare(0, fabric_prefix.size(), fabric_prefix) == 0 &&
        name.size() > fabric_prefix.size()) {
        return device_name{ROVA_PLATFORM_BLOCK_FABRIC, name.substr(fabric_prefix.size())};
    }
    throw failure("--device " + in_quotes(name) + " is not a device: it takes soft or " +
                      "fabric:ADDRESS, as fabric:10.0.0.1",
                  exit_code::usage);
}

device_name sharing_device(const options& given)
{
    auto device = named_device(given).value_or(device_name{ROVA_PLATFORM_BLOCK_SOFT, ""});
    if (device.kind == ROVA_PLATFORM_BLOCK_SOFT) {
        refuse_fabric_options(
            given,
            "this shares through a soft one; name a fabric one, as --device fabric:10.0.0.1");
    }
    return device;
}

std::optional<std::string> given_fabric_option(const options& given)
{
    const char* const option = given.provider                    ? "--provider"
                               : !given.allowed_networks.empty() ? "--allow"
                               : given.time_limit                ? "--time-limit"
                                                                 : nullptr;
    return option != nullptr ? std::optional<std::string>(option) : std::nullopt;
}

const char* kind_name(rova_platform_block_kind kind)
{
    switch (kind) {
        case ROVA_PLATFORM_BLOCK_SOFT:
            return "soft";
        case ROVA_PLATFORM_BLOCK_FABRIC:
            return "fabric";
        case ROVA_PLATFORM_BLOCK_UNKNOWN:
            return "unknown";
    }
    return "unknown";
}

device_ptr open_device(const device_name& name, const options& given)
{
    return name.kind == ROVA_PLATFORM_BLOCK_FABRIC
               ? open_fabric_device(name.address, given)
               : make<device_ptr>("a device", rova_soft_dev_open);
}

device_name device_for_block(const byte_vector& block, const options& given)
{
    const rova_platform_block_kind kind = kind_of_block(block);
    const auto named = named_device(given);
    if (kind == ROVA_PLATFORM_BLOCK_UNKNOWN) {
        throw failure("the descriptor was made by a device that this program does not know",
                      exit_code::bad_descriptor);
    }
    if (named && named->kind != kind) {
        throw failure(std::string("the descriptor was made by a ") + kind_name(kind) +
                          " device, and --device names a " + kind_name(named->kind) + " one",
                      exit_code::usage);
    }
    if (kind == ROVA_PLATFORM_BLOCK_SOFT) {
        refuse_fabric_options(given, "the descriptor was made by a soft one; leave it out");
    }
    if (kind == ROVA_PLATFORM_BLOCK_FABRIC && !named) {
        const auto info = explain_fabric_block(block);
        throw failure("the descriptor was made by a device between hosts" +
                          (info ? ", at " + in_quotes(info->address) : "") +
                          ": give the address of this host that can reach it, with --device "
                          "fabric:ADDRESS",
                      exit_code::usage);
    }
    return named.value_or(device_name{kind, ""});
}

rova_platform_block_kind kind_of_block(const byte_vector& block)
{
    return rova_platform_block_kind_of(block.data(), block.size());
}

std::optional<rova_soft_block_info> explain_soft_block(const byte_vector& block)
{
    if (kind_of_block(block) != ROVA_PLATFORM_BLOCK_SOFT) {
        return std::nullopt;
    }
    rova_soft_block_info info{};
    const rova_error_t code = rova_soft_block_explain(block.data(), block.size(), &info);
    static_cast<void>(take_log());
    return code == ROVA_SUCCESS ? std::optional(info) : std::nullopt;
}

std::optional<rova_fabric_block_info> explain_fabric_block(const byte_vector& block)
{
    if (kind_of_block(block) != ROVA_PLATFORM_BLOCK_FABRIC) {
        return std::nullopt;
    }
    const fabric_platform& platform = fabric_platform::instance();
    rova_fabric_block_info info{};
    const bool is_explained = platform.error().empty() &&
                              platform.explain(block.data(), block.size(), &info) == ROVA_SUCCESS;
    static_cast<void>(take_log());
    return is_explained ? std::optional(info) : std::nullopt;
}

std::optional<std::string> why_no_fabric()
{
    const std::string& error = fabric_platform::instance().error();
    return error.empty() ? std::nullopt : std::optional(error);
}

}  // namespace tool
