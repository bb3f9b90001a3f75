/*
 * A look at an export descriptor that needs neither a device nor the process that made it.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "json.hpp"
#include "priv_rova_export_bytes.hpp"
#include "text.hpp"

namespace tool {

/** How many bytes a descriptor has at most, where --max-descriptor does not say otherwise. */
inline constexpr size_t usual_descriptor_limit = 64 * 1024;

/** Something that keeps a descriptor from being imported. */
struct defect {
    size_t offset;  ///< the byte of the descriptor that it was found at
    std::string text;
};

/** Things worth knowing about a descriptor. The first ones are kept, the others counted. */
class remark_list {
public:
    void add(const std::string& text);

    /** The texts; the last one says how many more there were. */
    std::vector<std::string> texts() const;

private:
    std::vector<std::string> m_texts;
    size_t m_left_out = 0;
};

/** Everything that can be said about a descriptor; what cannot be read is absent. */
struct descriptor_report {
    size_t length = 0;
    std::optional<core::common_header> header;
    uint32_t computed_checksum = 0;
    byte_vector payload;  ///< as plain text, as far as it is there
    json_ptr document;    ///< the payload, parsed
    std::optional<uint64_t> size;
    std::optional<uint64_t> page_size;
    std::optional<uint32_t> access_flags;
    std::optional<byte_vector> device_block;
    std::vector<defect> defects;  ///< in the order of their offsets
    remark_list remarks;

    bool is_intact() const { return defects.empty(); }
    bool lengths_add_up() const { return header && header->descriptor_length() == length; }
    bool checksum_is_right() const { return header && header->crc == computed_checksum; }

    /** Whether hardly anything of it fits a descriptor: it is probably a file of another kind. */
    bool looks_like_something_else() const
    {
        return !header ||
               (header->major_version() != 0 && !lengths_add_up() && !checksum_is_right());
    }
};

/** Reads a descriptor file, "-" for standard input; a failure when it has more than `limit` bytes.
 */
byte_vector read_descriptor(const std::string& path, std::optional<uint64_t> limit = std::nullopt);

/** Looks at all of it. Defects are reported, never thrown; too little memory is std::bad_alloc. */
descriptor_report examine(const byte_vector& bytes);

/** Whether an open file is a descriptor, of whatever version: its envelope is intact. */
bool holds_descriptor(int fd, const std::string& path);

}  // namespace tool
