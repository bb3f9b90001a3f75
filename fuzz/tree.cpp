// A tree built from the input's bytes: it prints, parses and prints the same.

#include <cstring>
#include <string>

#include "priv_rova_export.hpp"
#include "target.hpp"

namespace {

/** The rest of the input. Reads zeros after its end. */
class bytes_left {
public:
    bytes_left(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    bool empty() const { return m_size == 0; }

    uint8_t byte()
    {
        if (m_size == 0) {
            return 0;
        }
        --m_size;
        return *m_data++;
    }

    template <typename T>
    T value()
    {
        uint64_t bits = 0;
        for (size_t i = 0; i < sizeof(T); ++i) {
            bits = bits << 8 | byte();
        }
        T result{};
        std::memcpy(&result, &bits, sizeof(T));
        return result;
    }

    std::string text()
    {
        std::string result;
        for (size_t left = byte() % 40; left != 0; --left) {
            result.push_back(static_cast<char>(byte()));
        }
        return result.substr(0, result.find('\0'));
    }

private:
    const uint8_t* m_data;
    size_t m_size;
};

// json-c reads 32 levels, the outermost among them.
const int deepest = 30;

void fill(core::export_field& container, bytes_left& left, int depth);

std::shared_ptr<core::export_field> node(bytes_left& left, int depth)
{
    std::shared_ptr<core::export_field> container;
    switch (left.byte() % 8) {
        case 0:
            return std::make_shared<core::export_field_uint32>(left.value<uint32_t>(), nullptr);
        case 1:
            return std::make_shared<core::export_field_uint64>(left.value<uint64_t>(), nullptr);
        case 2:
            return std::make_shared<core::export_field_double>(left.value<double>(), nullptr);
        case 3:
            return std::make_shared<core::export_field_bool>(left.byte() % 2 != 0, nullptr);
        case 4:
            return std::make_shared<core::export_field_string>(left.text(), nullptr);
        case 5:
            container = std::make_shared<core::export_field_array>(nullptr);
            break;
        case 6:
            container = std::make_shared<core::export_field_object>(nullptr);
            break;
        default:
            return std::make_shared<core::export_field_null>(nullptr, nullptr);
    }
    if (depth < deepest) {
        fill(*container, left, depth + 1);
    }
    return container;
}

void fill(core::export_field& container, bytes_left& left, int depth)
{
    for (size_t children = left.byte() % 16; children != 0 && !left.empty(); --children) {
        const std::string key = container.is_object() ? left.text() : std::string();
        container.add(key, node(left, depth));
    }
}

std::string printed(const core::export_field& field)
{
    core::json_c_serializer serializer;
    field.accept(serializer);
    const uint8_t* text = nullptr;
    uint32_t length = 0;
    serializer.serialize(&text, &length);
    return {reinterpret_cast<const char*>(text), length};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    bytes_left left(data, size);
    core::export_field_object root(nullptr);
    fill(root, left, 1);

    const std::string text = printed(root);
    core::json_c_serializer reader;
    const std::unique_ptr<core::export_field> read(reader.deserialize(
        reinterpret_cast<const uint8_t*>(text.data()), static_cast<uint32_t>(text.size())));
    require(printed(*read) == text, "a tree that was printed and parsed prints the same");
    return 0;
}
