#include "export_block.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "block_kind.hpp"
#include "failure.hpp"
#include "rova_fabric_platform.h"
#include "rova_platform.h"

namespace fabric {
namespace {

constexpr uint32_t block_version = 1;
constexpr uint64_t known_flags = ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE;

/** The bytes of a block in a descriptor. */
struct wire_block {
    uint32_t magic;
    uint32_t version;
    uint64_t checksum; /**< over all other bytes: detects damage, not forgery */
    std::array<char, 32> provider;
    uint16_t address_family; /**< 4 or 6 */
    uint16_t address_length;
    uint16_t port;
    uint16_t reserved;
    std::array<uint8_t, 16> address;
    remote_memory record_at;
    region_record record;
};

static_assert(sizeof(wire_block) == 144);
static_assert(std::has_unique_object_representations_v<wire_block>);

uint64_t checksum_of(wire_block block)
{
    block.checksum = 0;
    std::array<uint8_t, sizeof(block)> bytes = {};
    std::memcpy(bytes.data(), &block, sizeof(block));
    uint64_t sum = 0xcbf29ce484222325;
    for (const uint8_t byte : bytes) {
        sum = (sum ^ byte) * 0x100000001b3;
    }
    return sum;
}

void require(bool holds, const char* what)
{
    if (!holds) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE, "the block is damaged: %s", what);
    }
}

void check_head(const wire_block& block, size_t size)
{
    if (size >= offsetof(wire_block, version) && block.magic != platform::fabric_block_magic) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "the block begins with 0x%08x: it was not made by a fabric device",
                       block.magic);
    }
    if (size >= offsetof(wire_block, checksum) && block.version != block_version) {
        platform::fail(ROVA_ERROR_UNSUPPORTED_VERSION, ROVA_HERE,
                       "the block has version %u, this device reads version %u", block.version,
                       block_version);
    }
    if (size != sizeof(block)) {
        platform::fail(ROVA_ERROR_INVALID_VALUE, ROVA_HERE,
                       "the block has %zu bytes, those of a fabric device have %zu", size,
                       sizeof(block));
    }
}

bool is_name(const std::array<char, 32>& text)
{
    const auto* const end = std::find(text.begin(), text.end(), '\0');
    return end != text.begin() && end != text.end() &&
           std::all_of(text.begin(), end, [](char c) { return c > ' ' && c <= '~'; }) &&
           std::all_of(end, text.end(), [](char c) { return c == '\0'; });
}

bool is_zero_from(const std::array<uint8_t, 16>& bytes, size_t begin)
{
    return std::all_of(bytes.begin() + static_cast<ptrdiff_t>(begin), bytes.end(),
                       [](uint8_t byte) { return byte == 0; });
}

/** Whether memory of a given size can lie there. */
bool fits(const remote_memory& memory, uint64_t size)
{
    return size != 0 && size - 1 <= UINT64_MAX - memory.address;
}

ip_address address_in(const wire_block& block)
{
    const bool is_ipv4 = block.address_family == 4;
    require(is_ipv4 || block.address_family == 6, "its address is of an unknown family");
    const ip_address address = {is_ipv4 ? sa_family_t{AF_INET} : sa_family_t{AF_INET6},
                                block.address};
    require(block.address_length == address.length(), "its address has the wrong length");
    require(is_zero_from(block.address, address.length()), "bytes follow its address");
    require(reason_against(address) == nullptr, "no region can be offered at its address");
    return address;
}

}  // namespace

std::vector<uint8_t> to_bytes(const export_block& block)
{
    wire_block wire = {};
    wire.magic = platform::fabric_block_magic;
    wire.version = block_version;
    block.provider.copy(wire.provider.data(), wire.provider.size() - 1);
    wire.address_family = block.address.family == AF_INET ? 4 : 6;
    wire.address_length = static_cast<uint16_t>(block.address.length());
    wire.port = block.port;
    wire.address = block.address.bytes;
    wire.record_at = block.record_at;
    wire.record = block.record;
    wire.checksum = checksum_of(wire);
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&wire);
    return {bytes, bytes + sizeof(wire)};
}

export_block from_bytes(const uint8_t* bytes, size_t size)
{
    wire_block wire = {};
    if (size != 0) {
        std::memcpy(&wire, bytes, std::min(size, sizeof(wire)));
    }
    check_head(wire, size);
    require(wire.checksum == checksum_of(wire), "its checksum is wrong");
    require(is_name(wire.provider), "its provider's name is not valid");
    const ip_address address = address_in(wire);
    require(wire.port != 0 && wire.reserved == 0, "it has no port");
    require(wire.record.magic == region_record_magic, "it holds no record");
    require((wire.record.access_flags & ~known_flags) == 0, "it grants unknown rights");
    require(fits(wire.record.data, wire.record.size) && fits(wire.record_at, sizeof(region_record)),
            "its region wraps round the address space");
    return {wire.provider.data(), address, wire.port, wire.record_at, wire.record};
}

}  // namespace fabric

rova_error_t rova_fabric_block_explain(const void* block, size_t size,
                                       struct rova_fabric_block_info* info)
{
    return platform::guarded(ROVA_HERE, "Failed to explain a block", [=](platform::location here) {
        platform::check_not_null(info, "info", here);
        if (size != 0) {
            platform::check_not_null(block, "block", here);
        }
        const auto parsed = fabric::from_bytes(static_cast<const uint8_t*>(block), size);
        rova_fabric_block_info explained = {};
        parsed.address.text().copy(explained.address, sizeof(explained.address) - 1);
        explained.port = parsed.port;
        parsed.provider.copy(explained.provider, sizeof(explained.provider) - 1);
        explained.size = parsed.record.size;
        explained.access_flags = static_cast<uint32_t>(parsed.record.access_flags);
        *info = explained;
    });
}
