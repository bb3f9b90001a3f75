/*
 * A scripted GPU layer and a scripted accelerator layer.
 *
 * The two look-up functions are defined here, in the program, and so take
 * precedence over the platform's. For one source file of a program.
 */
#pragma once

#include "priv_rova_sub_dev_apx.h"
#include "priv_rova_sub_dev_gpu.h"

namespace support {

/**
 * The layers' answers; it is the GPU and the accelerator context, too. A failing answer comes with
 * a value all the same, which must not be used.
 */
struct scripted_layers {
    rova_gpu* gpu() { return reinterpret_cast<rova_gpu*>(this); }
    rova_apx* apx() { return reinterpret_cast<rova_apx*>(this); }

    rova_error_t m_dmabuf_code = ROVA_SUCCESS;
    int m_dmabuf_fd = 33;
    rova_dev* m_apx_dev = nullptr;
    rova_error_t m_id_code = ROVA_SUCCESS;      // the umem id is 77
    rova_error_t m_offset_code = ROVA_SUCCESS;  // an address lies 0x100 further into its umem

    static inline bool s_present = true;
};

template <class context>
const scripted_layers& layers_of(const context* object)
{
    return *reinterpret_cast<const scripted_layers*>(object);
}

}  // namespace support

const priv_rova_sub_dev_gpu_ops* priv_rova_sub_dev_gpu_ops_get()
{
    static const priv_rova_sub_dev_gpu_ops layer = {
        [](rova_gpu* gpu, void*, size_t, int* dmabuf_fd) {
            *dmabuf_fd = support::layers_of(gpu).m_dmabuf_fd;
            return support::layers_of(gpu).m_dmabuf_code;
        }};
    return support::scripted_layers::s_present ? &layer : nullptr;
}

const priv_rova_sub_dev_apx_ops* priv_rova_sub_dev_apx_ops_get()
{
    static const priv_rova_sub_dev_apx_ops layer = {
        [](const rova_apx* apx) { return support::layers_of(apx).m_apx_dev; },
        nullptr,  // the component has no use for it
        [](const rova_apx* apx, uint32_t* umem_id) {
            *umem_id = 77;
            return support::layers_of(apx).m_id_code;
        },
        [](const rova_apx* apx, uint64_t address, uint64_t* base_offset) {
            *base_offset = address + 0x100;
            return support::layers_of(apx).m_offset_code;
        }};
    return support::scripted_layers::s_present ? &layer : nullptr;
}
