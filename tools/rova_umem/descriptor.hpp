/*
 * A look at an export descriptor that needs neither a device nor the process that made it.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json-c/json.h>

#include "text.hpp"

namespace tool {

struct json_putter {
    void operator()(json_object* value) const noexcept { json_object_put(value); }
};
using json_ptr = std::unique_ptr<json_object, json_putter>;

/** Something that keeps a descriptor from being imported. */
struct damage {
    size_t offset;  ///< the byte of the descriptor that it was found at
    std::string text;
};

struct descriptor_header {
    uint32_t checksum;
    uint32_t computed_checksum;
    uint8_t major;
    uint16_t minor;
    uint16_t header_length;
    uint32_t payload_length;
};

/** Everything that can be said about a descriptor; what cannot be read is absent. */
struct descriptor_report {
    size_t length = 0;
    std::optional<descriptor_header> header;
    byte_vector payload;  ///< as plain text, as far as it is there
    json_ptr document;    ///< the payload, parsed
    std::optional<uint64_t> size;
    std::optional<uint64_t> page_size;
    std::optional<uint32_t> access_flags;
    std::optional<byte_vector> device_block;
    std::vector<damage> damages;  ///< in the order of their offsets
    std::vector<std::string> remarks;

    bool lengths_add_up() const
    {
        return header && uint64_t{header->header_length} + header->payload_length == length;
    }
    bool checksum_is_right() const
    {
        return header && header->checksum == header->computed_checksum;
    }
};

/** The member that carries the device layer's own export. */
inline constexpr const char* device_block_key = "tlox_umem_exported_attributes";

/** Reads a descriptor file, "-" for standard input. What is far too large for one is refused. */
byte_vector read_descriptor(const std::string& path);

/** Looks at all of it; damage is reported, never thrown. */
descriptor_report examine(const byte_vector& bytes);

/** Whether a regular file is a descriptor, of whatever version: its envelope is whole. */
bool holds_descriptor(const std::string& path);

}  // namespace tool
