/*
 * The component's operations to measure, and the floors that they are compared with.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "priv_rova_umem_api.h"
#include "rova_dev.hpp"

namespace bench {

/** Destroys a region; ends the program if that fails. */
struct region_deleter {
    void operator()(priv_rova_umem* region) const;
};
using region = std::unique_ptr<priv_rova_umem, region_deleter>;

/**
 * An open device that does nothing. It exports a block of a given length, and imports any block.
 */
class scripted_device {
public:
    explicit scripted_device(size_t block_length);

    rova_dev* dev() { return &m_dev; }
    device_abstraction::itlox_adapter& adapter() { return *m_adapter; }

    /** A region that has not been exported yet. */
    region make_region();

    /** A region made from a descriptor. */
    region import_region(const std::vector<uint8_t>& descriptor);

private:
    std::shared_ptr<device_abstraction::itlox_adapter> m_adapter;
    rova_dev m_dev;
};

/** Asks for a region's descriptor; ends the program if there is none. */
std::pair<const uint8_t*, size_t> ask_for_descriptor(priv_rova_umem* region);

/** A copy of a region's descriptor. */
std::vector<uint8_t> export_region(priv_rova_umem* region);

/** The block that a device exports for this length. */
std::vector<uint8_t> device_block(size_t length);

/**
 * json-c alone builds, prints and releases the text of a region's descriptor. Returns its length.
 */
size_t json_floor_export(const std::vector<uint8_t>& block, std::string* text = nullptr);

/**
 * json-c alone parses such a text, reads every integer and releases it. Returns the integers' sum.
 */
int64_t json_floor_import(const std::string& text);

/** Does nothing: calling this costs what a call through a function pointer costs. */
rova_error_t do_nothing(priv_rova_umem* region, void** export_desc, size_t* export_desc_len);

/** The text for json_floor_import; ends the program unless a descriptor contains the same text. */
std::string descriptor_text(size_t block_length);

}  // namespace bench
