/*
 * What the tests of the flat functions start from: scripted layers, and the log in view.
 */
#pragma once

#include <gtest/gtest.h>

#include "priv_rova_umem.hpp"
#include "priv_rova_umem_api.h"
#include "rova_umem.h"
#include "support/log_records.hpp"
#include "support/scripted_device.hpp"
#include "support/scripted_sub_devices.hpp"

namespace support {

class umem_fixture : public testing::Test {
protected:
    umem_fixture()
    {
        m_layers.m_apx_dev = &m_device;
        // An adapter that is still held when a failure is reported is held too long.
        m_log.on_record([this] { EXPECT_EQ(m_device.borrowers(), 0); });
    }

    ~umem_fixture() override
    {
        EXPECT_EQ(m_device->live(), 0U);
        EXPECT_EQ(m_device.borrowers(), 0);
        m_log.expect({});
    }

    /** A host region of 2 MiB in pages of 4096, with access flags 5, named REGION in the log. */
    priv_rova_umem* make_region()
    {
        priv_rova_umem* region = nullptr;
        EXPECT_EQ(priv_rova_umem_create_pg_sz(&m_device, m_address, 2097152, 4096, 5, &region),
                  ROVA_SUCCESS);
        m_device->take_calls();
        m_log.name(region, "REGION");
        return region;
    }

    // Never touched: the scripted device does not look at memory.
    void* const m_address = reinterpret_cast<void*>(0x7000);
    // Stands in an output that must not be written.
    priv_rova_umem* const m_untouched = reinterpret_cast<priv_rova_umem*>(0xDEAD);

    log_records m_log;
    scripted_layers m_layers;
    scripted_device m_device;
};

}  // namespace support
