/*
 * What is measured, and the floors that it is measured beside.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "priv_rova_umem_api.h"
#include "rova_dev.hpp"

namespace bench {

/** What ends a region; a region that cannot be ended ends the program. */
struct region_end {
    void operator()(priv_rova_umem* region) const;
};
using region = std::unique_ptr<priv_rova_umem, region_end>;

/** An open device that does nothing. It exports a block of a given length and imports any. */
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
std::vector<uint8_t> export_region(priv_rova_umem* region);

/** The block that a device of that length exports. */
std::vector<uint8_t> device_block(size_t length);

/** json-c alone: the text of a region's descriptor built, printed and released. Its length. */
size_t json_floor_export(const std::vector<uint8_t>& block, std::string* text = nullptr);

/** json-c alone: such a text parsed, every integer read, released. The sum of the integers. */
int64_t json_floor_import(const std::string& text);

/** A call through a function pointer costs what calling this costs. */
rova_error_t do_nothing(priv_rova_umem* region, void** export_desc, size_t* export_desc_len);

/** The text for json_floor_import; ends the program unless a descriptor carries the same one. */
std::string descriptor_text(size_t block_length);

}  // namespace bench
