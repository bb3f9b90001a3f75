/*
 * The flat functions check their arguments in order, log one message and write nothing.
 */
#include <dlfcn.h>

#include <tuple>

#include "support/umem_fixture.hpp"

namespace {

/** A checked argument, and the message for a wrong one. */
template <class value>
struct checked {
    value right;
    const char* message;
    value wrong{};
};
template <class value>
checked(value, const char*) -> checked<value>;

/**
 * Picks the arguments of a call: those before `m_wrong` are right, that one is wrong, and those
 * after it are right or wrong as `m_rest_is_right` says.
 */
struct picker {
    template <class value>
    value operator()(const checked<value>& argument)
    {
        const size_t own = m_index++;
        m_message += own == m_wrong ? argument.message : "";
        return own < m_wrong || (own > m_wrong && m_rest_is_right) ? argument.right
                                                                   : argument.wrong;
    }
    template <class value>
    value operator()(const value& unchecked)
    {
        return unchecked;
    }

    size_t m_wrong;
    bool m_rest_is_right;
    size_t m_index = 0;
    std::string m_message = {};
};

class umem_arguments : public support::umem_fixture {
protected:
    // Calls a function twice for each checked argument, with that one as the first that is wrong:
    // once with right arguments after it, and once with wrong ones.
    template <class function, class... arguments>
    void refuses(function* call, const std::string& action, const arguments&... values)
    {
        Dl_info info{};
        ASSERT_NE(dladdr(reinterpret_cast<void*>(call), &info), 0);
        const std::string name = info.dli_sname;
        for (size_t trial = 0;; ++trial) {
            SCOPED_TRACE(name + ", trial " + std::to_string(trial));
            picker pick{trial / 2, trial % 2 == 0};
            // Braces, unlike a call's parentheses, keep the arguments in order.
            const std::tuple given{pick(values)...};
            if (pick.m_message.empty()) {
                break;
            }
            EXPECT_EQ(std::apply(call, given), ROVA_ERROR_INVALID_VALUE);
            expect_log({name + ": " + action + pick.m_message});
            EXPECT_EQ(m_device->take_calls(), support::lines());
            EXPECT_EQ(std::tuple(m_made, m_handle, m_pointer, m_number, m_length),
                      std::tuple(m_untouched, nullptr, nullptr, 0U, 0U));
        }
    }

    // An argument that is not checked may be anything: these are the worst values.
    const uint32_t m_flags = 0xFFFFFFFF;
    rova_dev* const m_no_device = nullptr;
    void* const m_nowhere = nullptr;

    priv_rova_umem* m_made = m_untouched;
    rova_umem* m_handle = nullptr;
    void* m_pointer = nullptr;
    uint32_t m_number = 0;
    uint64_t m_length = 0;

    const checked<const rova_dev*> m_dev{&m_device, "dev=NULL"};
    const checked<rova_gpu*> m_gpu{m_layers.gpu(), "gpu=NULL"};
    const checked<rova_apx*> m_apx{m_layers.apx(), "apx=NULL"};
    const checked<void*> m_start{m_address, "address=NULL"};
    const checked<size_t> m_size{16, "size=0"};
    const checked<size_t> m_page_size{4096, "page_size=0"};
    const checked<priv_rova_umem**> m_out{&m_made, "umem_obj=NULL"};
    const checked<rova_umem**> m_handle_out{&m_handle, "umem_obj=NULL"};
    const std::string m_create = "Failed to create umem: parameter ";
};

TEST_F(umem_arguments, are_refused_in_order_when_a_region_is_created)
{
    const checked<int> fd{0, "dmabuf_fd=-1 is less than zero", -1};
    const checked<const void*> desc{m_address, "export_desc=NULL"};
    const checked<size_t> desc_len{1, "export_desc_len=0"};

    refuses(priv_rova_umem_create, m_create, m_dev, m_start, m_size, m_flags, m_out);
    refuses(priv_rova_umem_create_pg_sz, m_create, m_dev, m_start, m_size, m_page_size, m_flags,
            m_out);
    refuses(priv_rova_umem_create_dmabuf, m_create, m_dev, m_nowhere, size_t{0}, m_size,
            m_page_size, fd, m_flags, m_out);
    refuses(priv_rova_umem_apx_create, m_create, m_apx, uint64_t{0}, m_size, m_flags, m_out);
    refuses(priv_rova_umem_gpu_create, m_create, m_gpu, m_no_device, m_nowhere, m_size, m_flags,
            m_out);
    refuses(priv_rova_umem_create_from_export, m_create, m_dev, desc, desc_len, m_start, m_out);

    refuses(rova_umem_create, m_create, m_dev, m_start, m_size, m_flags, m_handle_out);
    refuses(rova_umem_gpu_create, m_create, m_gpu, m_no_device, m_nowhere, m_size, m_flags,
            &m_handle);
    refuses(rova_umem_gpu_create, "Failed to create gpu umem: parameter ", m_layers.gpu(),
            m_no_device, m_nowhere, size_t{16}, m_flags, m_handle_out);
    refuses(rova_umem_apx_create, m_create, m_apx, uint64_t{0}, m_size, m_flags, &m_handle);
    refuses(rova_umem_apx_create, "Failed to create apx umem: parameter ", m_layers.apx(),
            uint64_t{0}, size_t{16}, m_flags, m_handle_out);
}

TEST_F(umem_arguments, are_refused_in_order_when_a_region_is_used_or_ended)
{
    const std::string id = "Failed to get umem id: ", size = "Failed to get umem size: ",
                      buffer = "Failed to get umem buffer: ";
    rova_umem* handle = nullptr;
    ASSERT_EQ(rova_umem_create(&m_device, m_address, 16, 5, &handle), ROVA_SUCCESS);
    m_device->take_calls();
    const checked<priv_rova_umem*> used{priv_rova_umem_from_rova_umem(handle), "umem_obj=NULL"};
    const checked<const priv_rova_umem*> asked{used.right, used.message};
    const checked<const rova_umem*> asked_handle{handle, "umem_obj=NULL"};
    const auto pointer = [this](const char* message) { return checked{&m_pointer, message}; };
    const auto number = [this](const char* message) { return checked{&m_number, message}; };
    const auto length = [this](const char* message) { return checked{&m_length, message}; };

    refuses(priv_rova_umem_export, "Failed to export umem: ", used, pointer("export_desc=NULL"),
            length("export_desc_len=NULL"));
    refuses(priv_rova_umem_id_get, id, asked, number("umem_id=NULL"));
    refuses(priv_rova_umem_size_get, size, asked, number("umem_size=NULL"));
    refuses(priv_rova_umem_pg_size_get, "Failed to get umem pg_size: ", asked,
            number("umem_pg_size=NULL"));
    refuses(priv_rova_umem_buffer_get, buffer, asked, pointer("umem_buf_addr=NULL"));
    refuses(priv_rova_umem_base_offset_get, buffer, asked, length("umem_base_offset=NULL"));
    refuses(priv_rova_umem_release, "Failed to release umem: ", used);
    refuses(priv_rova_umem_destroy, "Failed to destroy umem: parameter ", used);

    refuses(rova_umem_destroy, "Failed to destroy umem: parameter ",
            checked<rova_umem*>{handle, "umem_obj=NULL"});
    refuses(rova_umem_get_id, id, asked_handle, number("umem_id=NULL"));
    refuses(rova_umem_get_size, size, asked_handle, number("umem_size=NULL"));
    refuses(rova_umem_get_address, "Failed to get umem address: ", asked_handle,
            pointer("umem_addr=NULL"));
    EXPECT_EQ(priv_rova_umem_from_rova_umem(nullptr), nullptr);
    expect_log({"priv_rova_umem_from_rova_umem: Failed to get priv umem instance: umem_obj=NULL"});
    EXPECT_EQ(rova_umem_destroy(handle), ROVA_SUCCESS);
}

}  // namespace
