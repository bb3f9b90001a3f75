/*
 * A GPU layer and an accelerator layer that do as they are told.
 *
 * The two look-up functions are defined here, in the program, and so take precedence over the
 * platform's, which they ask when there is no script. For one source file of a program.
 */
#pragma once

#include <dlfcn.h>

#include "priv_rova_sub_dev_apx.h"
#include "priv_rova_sub_dev_gpu.h"

namespace support {

/** The layers' answers while it lives; it is the GPU and the accelerator context, too. */
struct scripted_layers {
    scripted_layers() { s_current = this; }
    ~scripted_layers() { s_current = nullptr; }
    scripted_layers(const scripted_layers&) = delete;
    scripted_layers& operator=(const scripted_layers&) = delete;

    rova_gpu* gpu() { return reinterpret_cast<rova_gpu*>(this); }
    rova_apx* apx() { return reinterpret_cast<rova_apx*>(this); }

    bool m_gpu_present = true;
    rova_error_t m_dmabuf_code = ROVA_SUCCESS;
    int m_dmabuf_fd = 33;

    bool m_apx_present = true;
    rova_dev* m_apx_dev = nullptr;
    rova_error_t m_id_code = ROVA_SUCCESS;      // the umem id is 77
    rova_error_t m_offset_code = ROVA_SUCCESS;  // an address lies 0x100 further into its umem

    static inline const scripted_layers* s_current = nullptr;
};

template <class value>
rova_error_t answer(rova_error_t code, value* output, value right)
{
    if (code == ROVA_SUCCESS) {
        *output = right;
    }
    return code;
}

}  // namespace support

const priv_rova_sub_dev_gpu_ops* priv_rova_sub_dev_gpu_ops_get()
{
    using support::scripted_layers;
    static const priv_rova_sub_dev_gpu_ops scripted = {
        [](rova_gpu* gpu, void*, size_t, int* dmabuf_fd) {
            const auto& layers = *reinterpret_cast<scripted_layers*>(gpu);
            return support::answer(layers.m_dmabuf_code, dmabuf_fd, layers.m_dmabuf_fd);
        }};
    if (scripted_layers::s_current != nullptr) {
        return scripted_layers::s_current->m_gpu_present ? &scripted : nullptr;
    }
    void* const next = dlsym(RTLD_NEXT, "priv_rova_sub_dev_gpu_ops_get");
    return reinterpret_cast<decltype(&priv_rova_sub_dev_gpu_ops_get)>(next)();
}

const priv_rova_sub_dev_apx_ops* priv_rova_sub_dev_apx_ops_get()
{
    using support::scripted_layers;
    static const auto of = [](const rova_apx* apx) {
        return reinterpret_cast<const scripted_layers*>(apx);
    };
    static const priv_rova_sub_dev_apx_ops scripted = {
        [](const rova_apx* apx) { return of(apx)->m_apx_dev; },
        nullptr,  // the component has no use for it
        [](const rova_apx* apx, uint32_t* umem_id) {
            return support::answer(of(apx)->m_id_code, umem_id, 77U);
        },
        [](const rova_apx* apx, uint64_t address, uint64_t* base_offset) {
            return support::answer(of(apx)->m_offset_code, base_offset, address + 0x100);
        }};
    if (scripted_layers::s_current != nullptr) {
        return scripted_layers::s_current->m_apx_present ? &scripted : nullptr;
    }
    void* const next = dlsym(RTLD_NEXT, "priv_rova_sub_dev_apx_ops_get");
    return reinterpret_cast<decltype(&priv_rova_sub_dev_apx_ops_get)>(next)();
}
