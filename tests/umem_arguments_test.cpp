/*
 * How the flat functions check their arguments: in order, with one message, writing nothing.
 */
#include <tuple>

#include "support/umem_fixture.hpp"

namespace {

using support::lines;

/** An argument that is checked, and what is said of a wrong one. */
template <class value>
struct checked {
    value right;
    const char* message;
    value wrong{};
};
template <class value>
checked(value, const char*) -> checked<value>;

class umem_arguments : public support::umem_fixture {
protected:
    // Calls a function once for each checked argument and way to be the first wrong one: alone, and
    // with all that are checked after it.
    template <class function, class... arguments>
    void refuses(const char* name, function* call, const std::string& action,
                 const arguments&... values)
    {
        for (size_t wrong = 0; wrong < (is_checked(values) + ... + size_t{0}); ++wrong) {
            for (const bool rest_is_right : {true, false}) {
                SCOPED_TRACE(std::string(name) + ", checked argument " + std::to_string(wrong));
                size_t index = 0;
                std::string message;
                // Braces, unlike a call's parentheses, keep the arguments in order.
                const std::tuple given{choose(values, wrong, rest_is_right, index, message)...};
                EXPECT_EQ(std::apply(call, given), ROVA_ERROR_INVALID_VALUE);
                m_log.expect({std::string(name) + ": " + action + message});
                expect_untouched();
            }
        }
    }

    template <class value>
    static size_t is_checked(const checked<value>&)
    {
        return 1;
    }
    template <class value>
    static size_t is_checked(const value&)
    {
        return 0;
    }

    template <class value>
    static value choose(const checked<value>& argument, size_t wrong, bool rest_is_right,
                        size_t& index, std::string& message)
    {
        const size_t own = index++;
        if (own == wrong) {
            message = argument.message;
        }
        return own < wrong || (own > wrong && rest_is_right) ? argument.right : argument.wrong;
    }
    template <class value>
    static value choose(const value& argument, size_t, bool, size_t&, std::string&)
    {
        return argument;
    }

    void expect_untouched()
    {
        EXPECT_EQ(m_device->take_calls(), lines());
        EXPECT_EQ(m_made, m_untouched);
        EXPECT_EQ(m_handle, nullptr);
        EXPECT_EQ(m_pointer, m_untouched);
        EXPECT_EQ(m_number, 0xDEADU);
        EXPECT_EQ(m_length, 0xDEADU);
    }

    // An argument that is not checked may be anything: these are as bad as can be.
    const uint32_t m_flags = 0xFFFFFFFF;
    rova_dev* const m_no_device = nullptr;
    void* const m_nowhere = nullptr;

    priv_rova_umem* m_made = m_untouched;
    rova_umem* m_handle = nullptr;
    void* m_pointer = m_untouched;
    uint32_t m_number = 0xDEAD;
    uint64_t m_length = 0xDEAD;

    const checked<const rova_dev*> m_dev{&m_device, "dev=NULL"};
    const checked<rova_gpu*> m_gpu{m_layers.gpu(), "gpu=NULL"};
    const checked<rova_apx*> m_apx{m_layers.apx(), "apx=NULL"};
    const checked<void*> m_start{m_address, "address=NULL"};
    const checked<size_t> m_size{16, "size=0"};
    const checked<size_t> m_page_size{4096, "page_size=0"};
    const checked<priv_rova_umem**> m_out{&m_made, "umem_obj=NULL"};
};

TEST_F(umem_arguments, are_refused_in_order_when_a_region_is_created)
{
    const std::string create = "Failed to create umem: parameter ";
    const checked<int> fd{0, "dmabuf_fd=-1 is less than zero", -1};
    const checked<const void*> desc{m_address, "export_desc=NULL"};
    const checked<size_t> desc_len{1, "export_desc_len=0"};

    refuses("priv_rova_umem_create", priv_rova_umem_create, create, m_dev, m_start, m_size, m_flags,
            m_out);
    refuses("priv_rova_umem_create_pg_sz", priv_rova_umem_create_pg_sz, create, m_dev, m_start,
            m_size, m_page_size, m_flags, m_out);
    refuses("priv_rova_umem_create_dmabuf", priv_rova_umem_create_dmabuf, create, m_dev, m_nowhere,
            size_t{0}, m_size, m_page_size, fd, m_flags, m_out);
    refuses("priv_rova_umem_apx_create", priv_rova_umem_apx_create, create, m_apx, uint64_t{0},
            m_size, m_flags, m_out);
    refuses("priv_rova_umem_gpu_create", priv_rova_umem_gpu_create, create, m_gpu, m_no_device,
            m_nowhere, m_size, m_flags, m_out);
    refuses("priv_rova_umem_create_from_export", priv_rova_umem_create_from_export, create, m_dev,
            desc, desc_len, m_start, m_out);
}

TEST_F(umem_arguments, are_refused_in_order_when_a_region_is_used_or_ended)
{
    priv_rova_umem* const region = make_region();
    const checked<priv_rova_umem*> used{region, "umem_obj=NULL"};
    const checked<const priv_rova_umem*> asked{region, "umem_obj=NULL"};
    const checked<void**> pointer{&m_pointer, "export_desc=NULL"};
    const checked<void**> buffer{&m_pointer, "umem_buf_addr=NULL"};
    const auto number = [this](const char* message) { return checked{&m_number, message}; };
    const auto length = [this](const char* message) { return checked{&m_length, message}; };

    refuses("priv_rova_umem_export", priv_rova_umem_export, "Failed to export umem: ", used,
            pointer, length("export_desc_len=NULL"));
    refuses("priv_rova_umem_id_get", priv_rova_umem_id_get, "Failed to get umem id: ", asked,
            number("umem_id=NULL"));
    refuses("priv_rova_umem_size_get", priv_rova_umem_size_get, "Failed to get umem size: ", asked,
            number("umem_size=NULL"));
    refuses("priv_rova_umem_pg_size_get", priv_rova_umem_pg_size_get,
            "Failed to get umem pg_size: ", asked, number("umem_pg_size=NULL"));
    refuses("priv_rova_umem_buffer_get", priv_rova_umem_buffer_get,
            "Failed to get umem buffer: ", asked, buffer);
    refuses("priv_rova_umem_base_offset_get", priv_rova_umem_base_offset_get,
            "Failed to get umem buffer: ", asked, length("umem_base_offset=NULL"));
    refuses("priv_rova_umem_release", priv_rova_umem_release, "Failed to release umem: ", used);
    refuses("priv_rova_umem_destroy", priv_rova_umem_destroy, "Failed to destroy umem: parameter ",
            used);
    EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
}

TEST_F(umem_arguments, are_refused_in_order_by_the_public_functions)
{
    const std::string create = "Failed to create umem: parameter ";
    const checked<rova_umem**> out{&m_handle, "umem_obj=NULL"};
    rova_umem* handle = nullptr;
    ASSERT_EQ(rova_umem_create(&m_device, m_address, 16, 5, &handle), ROVA_SUCCESS);
    m_device->take_calls();
    const checked<const rova_umem*> asked{handle, "umem_obj=NULL"};
    const auto number = [this](const char* message) { return checked{&m_number, message}; };

    refuses("rova_umem_create", rova_umem_create, create, m_dev, m_start, m_size, m_flags, out);
    refuses("rova_umem_gpu_create", rova_umem_gpu_create, create, m_gpu, m_no_device, m_nowhere,
            m_size, m_flags, &m_handle);
    refuses("rova_umem_gpu_create", rova_umem_gpu_create, "Failed to create gpu umem: parameter ",
            m_layers.gpu(), m_no_device, m_nowhere, size_t{16}, m_flags, out);
    refuses("rova_umem_apx_create", rova_umem_apx_create, create, m_apx, uint64_t{0}, m_size,
            m_flags, &m_handle);
    refuses("rova_umem_apx_create", rova_umem_apx_create, "Failed to create apx umem: parameter ",
            m_layers.apx(), uint64_t{0}, size_t{16}, m_flags, out);
    refuses("rova_umem_destroy", rova_umem_destroy, "Failed to destroy umem: parameter ",
            checked<rova_umem*>{handle, "umem_obj=NULL"});
    refuses("rova_umem_get_id", rova_umem_get_id, "Failed to get umem id: ", asked,
            number("umem_id=NULL"));
    refuses("rova_umem_get_size", rova_umem_get_size, "Failed to get umem size: ", asked,
            number("umem_size=NULL"));
    refuses("rova_umem_get_address", rova_umem_get_address, "Failed to get umem address: ", asked,
            checked<void**>{&m_pointer, "umem_addr=NULL"});

    EXPECT_EQ(priv_rova_umem_from_rova_umem(nullptr), nullptr);
    m_log.expect(
        {"priv_rova_umem_from_rova_umem: Failed to get priv umem instance: umem_obj=NULL"});
    EXPECT_EQ(rova_umem_destroy(handle), ROVA_SUCCESS);
}

}  // namespace
