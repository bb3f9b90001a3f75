#include "component.hpp"

#include <json-c/json.h>

#include "priv_rova_export_bytes.hpp"
#include "programs.hpp"

namespace bench {
namespace {

namespace keys = core::payload_key;

constexpr size_t region_size = 2097152;
constexpr size_t page_size = 4096;
constexpr uint32_t access_flags = 5;

/** Stands in for memory and for the driver's objects; only its address is used. */
alignas(std::max_align_t) char some_memory[64];

void* some_address()
{
    return some_memory;
}

class scripted_adapter final : public device_abstraction::itlox_adapter {
public:
    explicit scripted_adapter(size_t block_length) : m_block(device_block(block_length)) {}

    std::pair<tlox_umem*, uint32_t> register_umem(void*, size_t, uint32_t, size_t) override
    {
        return registration();
    }
    std::pair<tlox_umem*, uint32_t> register_umem_dmabuf(int, void*, size_t, size_t, uint32_t,
                                                         size_t) override
    {
        return registration();
    }
    rova_error_t deregister_umem(tlox_umem*) noexcept override { return ROVA_SUCCESS; }
    std::vector<uint8_t> export_umem(tlox_umem*) override { return m_block; }
    std::pair<tlox_umem*, uint32_t> import_umem(const uint8_t*, size_t) override
    {
        return registration();
    }
    void release_umem(tlox_umem*) override {}

private:
    static std::pair<tlox_umem*, uint32_t> registration()
    {
        return {static_cast<tlox_umem*>(some_address()), 1};
    }

    std::vector<uint8_t> m_block;
};

class scripted_device_adapter final : public device_abstraction::idevice_adapter {
public:
    explicit scripted_device_adapter(std::shared_ptr<device_abstraction::itlox_adapter> adapter)
        : m_adapter(std::move(adapter))
    {}

    std::shared_ptr<device_abstraction::itlox_adapter> get_tlox_adapter() noexcept override
    {
        return m_adapter;
    }

private:
    std::shared_ptr<device_abstraction::itlox_adapter> m_adapter;
};

}  // namespace

void region_deleter::operator()(priv_rova_umem* region) const
{
    require(priv_rova_umem_destroy(region) == ROVA_SUCCESS, "a region was not destroyed");
}

scripted_device::scripted_device(size_t block_length)
    : m_adapter(std::make_shared<scripted_adapter>(block_length)),
      m_dev{std::make_shared<scripted_device_adapter>(m_adapter)}
{}

region scripted_device::make_region()
{
    priv_rova_umem* made = nullptr;
    require(priv_rova_umem_create_pg_sz(&m_dev, some_address(), region_size, page_size,
                                        access_flags, &made) == ROVA_SUCCESS,
            "a region was not created");
    return region(made);
}

region scripted_device::import_region(const std::vector<uint8_t>& descriptor)
{
    priv_rova_umem* made = nullptr;
    require(priv_rova_umem_create_from_export(&m_dev, descriptor.data(), descriptor.size(),
                                              some_address(), &made) == ROVA_SUCCESS,
            "a descriptor was not imported");
    return region(made);
}

std::pair<const uint8_t*, size_t> ask_for_descriptor(priv_rova_umem* region)
{
    void* bytes = nullptr;
    size_t length = 0;
    require(priv_rova_umem_export(region, &bytes, &length) == ROVA_SUCCESS,
            "a region was not exported");
    return {static_cast<const uint8_t*>(bytes), length};
}

std::vector<uint8_t> export_region(priv_rova_umem* region)
{
    const auto [first, length] = ask_for_descriptor(region);
    return std::vector<uint8_t>(first, first + length);
}

std::vector<uint8_t> device_block(size_t length)
{
    std::vector<uint8_t> block(length);
    for (size_t i = 0; i < length; ++i) {
        block[i] = static_cast<uint8_t>(i * 37 + i / 256);
    }
    return block;
}

size_t json_floor_export(const std::vector<uint8_t>& block, std::string* text)
{
    json_object* root = json_object_new_object();
    json_object_object_add(root, keys::access_flags, json_object_new_int(access_flags));
    json_object_object_add(root, keys::page_size, json_object_new_int64(page_size));
    json_object_object_add(root, keys::size, json_object_new_int64(region_size));
    json_object* array = json_object_new_array();
    for (const uint8_t byte : block) {
        json_object_array_add(array, json_object_new_int(byte));
    }
    json_object_object_add(root, keys::device_block, array);
    json_object* version = json_object_new_object();
    json_object_object_add(version, keys::version_major, json_object_new_int(1));
    json_object_object_add(version, keys::version_minor, json_object_new_int(1));
    json_object_object_add(root, keys::version, version);

    size_t length = 0;
    const char* printed = json_object_to_json_string_length(root, JSON_C_TO_STRING_PLAIN, &length);
    if (text != nullptr) {
        text->assign(printed, length);
    }
    json_object_put(root);
    return length;
}

int64_t json_floor_import(const std::string& text)
{
    json_object* root = json_tokener_parse(text.c_str());
    json_object* array = json_object_object_get(root, keys::device_block);
    json_object* version = json_object_object_get(root, keys::version);
    int64_t sum = json_object_get_int64(json_object_object_get(root, keys::access_flags)) +
                  json_object_get_int64(json_object_object_get(root, keys::page_size)) +
                  json_object_get_int64(json_object_object_get(root, keys::size)) +
                  json_object_get_int64(json_object_object_get(version, keys::version_major)) +
                  json_object_get_int64(json_object_object_get(version, keys::version_minor));
    const size_t length = json_object_array_length(array);
    for (size_t i = 0; i < length; ++i) {
        sum += json_object_get_int64(json_object_array_get_idx(array, i));
    }
    json_object_put(root);
    return sum;
}

rova_error_t do_nothing(priv_rova_umem*, void**, size_t*)
{
    return ROVA_SUCCESS;
}

std::string descriptor_text(size_t block_length)
{
    scripted_device device(block_length);
    std::vector<uint8_t> payload = export_region(device.make_region().get());
    require(payload.size() > core::common_header::size_bytes, "a descriptor is too short");
    payload.erase(payload.begin(), payload.begin() + core::common_header::size_bytes);
    priv_rova_utils_scramble_descramble(payload.data(), payload.data(), payload.size(),
                                        core::scrambling_key);

    std::string text;
    json_floor_export(device_block(block_length), &text);
    const std::string carried(payload.begin(), payload.end() - 1);
    require(text == carried, "the floor prints another text than the descriptor carries");
    return text;
}

}  // namespace bench
