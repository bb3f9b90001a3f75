#include "json.hpp"

#include <cmath>
#include <new>

#include <json-c/json_visit.h>
#include <json-c/printbuf.h>

#include "text.hpp"

namespace tool {
namespace {

json_ptr checked(json_object* value)
{
    if (value == nullptr) {
        throw std::bad_alloc();
    }
    return json_ptr(value);
}

int visit_number(json_object* value, int /*flags*/, json_object* /*parent*/, const char* /*key*/,
                 size_t* /*index*/, void* /*user*/)
{
    json_object_to_json_string_fn* const print_null = [](json_object* /*value*/, printbuf* text,
                                                         int /*level*/, int /*flags*/) {
        return printbuf_memappend(text, "null", 4);
    };
    if (json_object_is_type(value, json_type_double)) {
        // By default json-c prints the text that it has read, also "1.", which is not JSON.
        const bool is_json = std::isfinite(json_object_get_double(value));
        json_object_set_serializer(value, is_json ? nullptr : print_null, nullptr, nullptr);
    }
    return JSON_C_VISIT_RETURN_CONTINUE;
}

std::string text_of(const json_ptr& value, int flags)
{
    json_c_visit(value.get(), 0, visit_number, nullptr);
    const char* text =
        json_object_to_json_string_ext(value.get(), flags | JSON_C_TO_STRING_NOSLASHESCAPE);
    if (text == nullptr) {
        throw std::bad_alloc();
    }
    return ascii_json(text) + "\n";
}

}  // namespace

json_ptr json_new_object()
{
    return checked(json_object_new_object());
}

json_ptr json_new_array()
{
    return checked(json_object_new_array());
}

json_ptr json_number(uint64_t number)
{
    return checked(json_object_new_uint64(number));
}

void json_add(const json_ptr& object, const char* key, json_ptr value)
{
    if (json_object_object_add(object.get(), key, value.get()) != 0) {
        throw std::bad_alloc();
    }
    static_cast<void>(value.release());  // the object's now
}

void json_add(const json_ptr& object, const char* key, const std::string& text)
{
    // Paths, and texts whose length the size of a descriptor bounds.
    json_add(object, key,
             checked(json_object_new_string_len(text.data(), static_cast<int>(text.size()))));
}

void json_add(const json_ptr& object, const char* key, const char* text)
{
    json_add(object, key, std::string(text));
}

void json_add(const json_ptr& object, const char* key, uint64_t number)
{
    json_add(object, key, json_number(number));
}

void json_add(const json_ptr& object, const char* key, bool value)
{
    json_add(object, key, checked(json_object_new_boolean(value)));
}

void json_append(const json_ptr& array, json_ptr value)
{
    if (json_object_array_add(array.get(), value.get()) != 0) {
        throw std::bad_alloc();
    }
    static_cast<void>(value.release());  // the array's now
}

json_ptr json_array_of(const std::vector<std::string>& texts)
{
    json_ptr array = json_new_array();
    for (const std::string& text : texts) {
        json_append(
            array, checked(json_object_new_string_len(text.data(), static_cast<int>(text.size()))));
    }
    return array;
}

json_ptr json_copy(json_object* value)
{
    json_object* copy = nullptr;
    if (json_object_deep_copy(value, &copy, nullptr) != 0) {
        throw std::bad_alloc();
    }
    return json_ptr(copy);
}

std::string json_line(const json_ptr& value)
{
    return text_of(value, JSON_C_TO_STRING_PLAIN);
}

std::string json_pretty(const json_ptr& value)
{
    return text_of(value, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED);
}

}  // namespace tool
