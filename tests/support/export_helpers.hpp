/*
 * Helpers for the tests of the export framework.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "priv_rova_export.hpp"

using field_ptr = std::shared_ptr<core::export_field>;

/** What a call throws, as one line: "NO_MEMORY function: message" for those of the framework. */
template <class callable>
std::string failure_of(callable&& call)
{
    try {
        call();
    } catch (const rova::exception& e) {
        EXPECT_STREQ(e.location().file,
                     "libs/rova_common/core/include/private/priv_rova_export.hpp");
        EXPECT_GT(e.location().line, 0u);
        return rova_error_get_name(e.error_code()) + sizeof("ROVA_ERROR") +
               (std::string(" ") + e.location().function) + ": " + e.message();
    } catch (const std::runtime_error& e) {
        return e.what();
    } catch (const std::out_of_range&) {
        return "out of range";
    } catch (const std::logic_error&) {
        return "logic error";
    }
    return "nothing";
}

template <class field_class, class value_type>
field_ptr make(value_type value)
{
    return std::make_shared<field_class>(std::move(value), nullptr);
}

inline field_ptr make_null()
{
    return make<core::export_field_null>(nullptr);
}
inline field_ptr make_object()
{
    return std::make_shared<core::export_field_object>(nullptr);
}
inline field_ptr make_array(const std::vector<field_ptr>& elements = {})
{
    const field_ptr array = std::make_shared<core::export_field_array>(nullptr);
    for (const field_ptr& element : elements) {
        array->add("not used", element);
    }
    return array;
}

/** A proto whose node can be seen. */
struct open_proto : core::export_proto {
    open_proto() = default;
    explicit open_proto(core::export_proto&& proto) : core::export_proto(std::move(proto)) {}
    const field_ptr& node() const { return val; }
};

/** The JSON text of an object. */
inline std::string print(const core::export_field& object)
{
    core::json_c_serializer serializer;
    object.accept(serializer);
    const uint8_t* blob = nullptr;
    uint32_t length = 0;
    serializer.serialize(&blob, &length);
    const std::string text = reinterpret_cast<const char*>(blob);
    EXPECT_EQ(length, text.size() + 1);
    return text;
}

/** The JSON text of any proto. */
inline std::string text_of(core::export_proto&& proto)
{
    const field_ptr root = make_object();
    root->add("", open_proto(std::move(proto)).node());
    const std::string text = print(*root);
    return text.substr(4, text.size() - 5);
}

/** What a serializer parses from bytes that end where readable memory ends. */
inline field_ptr parse(core::json_c_serializer& serializer, const std::string& bytes)
{
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    return field_ptr(serializer.deserialize(exact.data(), static_cast<uint32_t>(exact.size())));
}

/** The tree of a text and its NUL. */
inline field_ptr parse(const std::string& text)
{
    core::json_c_serializer serializer;
    return parse(serializer, std::string(text.c_str(), text.size() + 1));
}
