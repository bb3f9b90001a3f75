/*
 * Who has exported a region: what the device's block in a descriptor says of it.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "json.hpp"
#include "rova_soft_platform.h"
#include "text.hpp"

namespace tool {

/** What can be seen of a process of this machine, from here. */
struct process_sight {
    enum class state {
        runs,
        ended,      ///< this is certain: all processes of the machine can be seen
        elsewhere,  ///< it runs in another pid namespace, so that its number is another one here
        not_found,  ///< it has ended, or runs in a pid namespace that cannot be seen
        hidden,     ///< /proc shows it to other users only
        no_proc     ///< without a /proc of this pid namespace nothing can be seen
    };

    state found;
    uint64_t pid = 0;          ///< its number here, if it runs
    std::string program = {};  ///< the name of its program, if it runs
};

/** Looks for the process that a block names. */
process_sight look_for(const rova_soft_block_info& info);

/** One line for people, for example "process 123 (rova_umem), since 2026-01-31 12:00:00". */
std::string exporter_text(const byte_vector& block);

/** The same for programs; null when the block says nothing. */
json_ptr exporter_json(const byte_vector& block);

}  // namespace tool
