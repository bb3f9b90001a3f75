/*
 * The kinds of network devices: opening one, and what the blocks that they export say.
 */
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "commands.hpp"
#include "rova_fabric_platform.h"
#include "rova_platform.h"
#include "rova_soft_platform.h"
#include "sdk.hpp"
#include "text.hpp"

namespace tool {

/** A device by its name on the command line: "soft" or "fabric:ADDRESS". */
struct device_name {
    rova_platform_block_kind kind;
    std::string address;  ///< of a fabric device
};

/** What --device says; nothing when it is not given. A failure when it names no device. */
std::optional<device_name> named_device(const options& given);

/** The device to share through; a failure when the options do not fit it. */
device_name sharing_device(const options& given);

/**
 * The name of an option that only fabric devices use, if one is given: "--provider", "--allow" or
 * "--time-limit".
 */
std::optional<std::string> given_fabric_option(const options& given);

/** "soft", "fabric" or "unknown". */
const char* kind_name(rova_platform_block_kind kind);

/** Opens a device. A failure names the missing package if that is the reason. */
device_ptr open_device(const device_name& name, const options& given);

/**
 * The device that can import a block, unless --device says otherwise. A failure when the block is
 * that of no known device, or when the options do not fit it.
 */
device_name device_for_block(const byte_vector& block, const options& given);

rova_platform_block_kind kind_of_block(const byte_vector& block);

/** What a block says; absent when it is damaged or made by another kind of device. */
std::optional<rova_soft_block_info> explain_soft_block(const byte_vector& block);
std::optional<rova_fabric_block_info> explain_fabric_block(const byte_vector& block);

/** Why the fabric platform cannot be loaded; nothing if it can. */
std::optional<std::string> why_no_fabric();

}  // namespace tool
