#include <dlfcn.h>

#include <cmath>
#include <random>
#include <string_view>
#include <type_traits>
#include <utility>

#include "support/allocation_failure.hpp"
#include "support/export_helpers.hpp"

namespace {

// The function of json-c that fails, and at which of its calls from now on.
std::string_view refused_function;
int refused_call = 0;

/** Calls a function of json-c, unless it is the one to fail. */
template <class result_type, class... parameters>
result_type forward(std::string_view name, result_type (*)(parameters...),
                    std::common_type_t<parameters>... arguments)
{
    if (name == refused_function && --refused_call == 0) {
        if constexpr (std::is_pointer_v<result_type>) {
            return nullptr;
        } else {
            return static_cast<result_type>(7);  // no success, and no type of json-c's
        }
    }
    return reinterpret_cast<result_type (*)(parameters...)>(dlsym(RTLD_NEXT, name.data()))(
        arguments...);
}

}  // namespace

// Functions of the program take precedence over those of a library.
extern "C" {
json_object* json_object_new_int(int32_t i)
{
    return forward(__func__, json_object_new_int, i);
}
json_object* json_object_new_int64(int64_t i)
{
    return forward(__func__, json_object_new_int64, i);
}
json_object* json_object_new_double(double d)
{
    return forward(__func__, json_object_new_double, d);
}
json_object* json_object_new_boolean(json_bool b)
{
    return forward(__func__, json_object_new_boolean, b);
}
json_object* json_object_new_string(const char* s)
{
    return forward(__func__, json_object_new_string, s);
}
json_object* json_object_new_array()
{
    return forward(__func__, json_object_new_array);
}
json_object* json_object_new_object()
{
    return forward(__func__, json_object_new_object);
}
int json_object_array_add(json_object* array, json_object* value)
{
    return forward(__func__, json_object_array_add, array, value);
}
int json_object_object_add(json_object* object, const char* key, json_object* value)
{
    return forward(__func__, json_object_object_add, object, key, value);
}
const char* json_object_to_json_string_ext(json_object* value, int flags)
{
    return forward(__func__, json_object_to_json_string_ext, value, flags);
}
json_type json_object_get_type(const json_object* value)
{
    return forward(__func__, json_object_get_type, value);
}
}

namespace {

using namespace core;
using proto = export_proto;

field_ptr tree_of_everything()
{
    return open_proto({{"array", {1u, {2ul, {"text", 3u}}, proto(make<export_field_double>(0.5))}},
                       {"bool", true},
                       {"null", nullptr},
                       {"object", {{"deep", {{"deeper", "text"}}}}}})
        .node();
}

TEST(printing, gives_the_known_texts)
{
    struct {
        proto value;
        const char* text;
    } rows[] = {
        {{{"size", 8192ul}, {"page_size", 4096u}}, R"({"page_size":4096,"size":8192})"},
        {{0u, 2147483647u, 2147483648u, 4294967295u}, "[0,2147483647,-2147483648,-1]"},
        {{4294967296ul, (1ul << 63) - 1, 1ul << 63, ~0ul},
         "[4294967296,9223372036854775807,-9223372036854775808,-1]"},
        {proto(make_object()), "{}"},
        {{{"empty", {nullptr}}}, R"({"empty":[]})"},
        {{true, nullptr, false, {{"n", nullptr}}}, R"([true,null,false,{"n":null}])"},
        {{"a/b", "\"\\\n\t\x01", "\xC3\xA9", std::string("cut\0here", 8)},
         R"(["a\/b","\"\\\n\t\u0001",)"
         "\"\xC3\xA9\",\"cut\"]"},
        {{{"\xC3\xA9", 1u}, {"z", 2u}, {"ab", 3u}, {"m", 4u}, {"a", 5u}, {"", 6u}, {"b", 7u}},
         "{\"\":6,\"a\":5,\"ab\":3,\"b\":7,\"m\":4,\"z\":2,\"\xC3\xA9\":1}"},
        {{proto(make<export_field_double>(1.5)), proto(make<export_field_double>(-2.0))},
         "[1.5,-2.0]"},
    };
    for (auto& row : rows) {
        EXPECT_EQ(text_of(std::move(row.value)), row.text);
    }
}

TEST(printing, of_nothing_is_null)
{
    json_c_serializer serializer;
    for (int round = 0; round < 2; ++round) {
        const uint8_t* blob = nullptr;
        uint32_t length = 0;
        serializer.serialize(&blob, &length);
        EXPECT_EQ(length, 5u);
        EXPECT_STREQ(reinterpret_cast<const char*>(blob), "null");
        make_null()->accept(serializer);
    }
}

TEST(printing, says_what_json_c_could_not_do_and_leaks_nothing)
{
    const std::string_view functions[] = {
        "json_object_new_int",     "json_object_new_int64",  "json_object_new_double",
        "json_object_new_boolean", "json_object_new_string", "json_object_new_array",
        "json_object_new_object",  "json_object_array_add",  "json_object_object_add",
    };
    const field_ptr tree = tree_of_everything();
    const std::string text = print(*tree);
    for (const std::string_view function : functions) {
        const std::string failure =
            "ROVA_ERROR_NO_MEMORY visit: " + std::string(function) + " failed";
        int failures = 0;
        for (;; ++failures) {
            refused_function = function;
            refused_call = failures + 1;
            const ptrdiff_t live = support::live_allocations();
            const bool failed = failure_of([&] { print(*tree); }) == failure;
            EXPECT_EQ(support::live_allocations(), live) << function << " " << failures;
            refused_function = {};
            EXPECT_EQ(print(*tree), text);
            if (!failed) {
                break;
            }
        }
        EXPECT_GT(refused_call, 0) << "every call of " << function << " was made to fail";
        EXPECT_GT(failures, 0) << function;
    }
    refused_function = "json_object_to_json_string_ext";
    refused_call = 1;
    EXPECT_EQ(failure_of([&] { print(*tree); }), "std::logic_error");
    refused_function = {};
}

TEST(parsing, gives_every_value_its_class)
{
    const field_ptr tree =
        parse(R"( {"d":1.5, "t":true, "f":false, "n":null, "s":"a\u0000b", "e":1e2,)"
              R"( "i":-1, "l":[1,[2,3],{"k":"v"}], "o":{}, "big":9223372036854775807} )");
    const auto at = [&](const char* key) { return (*tree)[key]; };
    EXPECT_EQ(at("d")->get_double(), 1.5);
    EXPECT_EQ(at("e")->get_double(), 100.0);
    EXPECT_TRUE(at("t")->get_bool());
    EXPECT_FALSE(at("f")->get_bool());
    EXPECT_TRUE(at("n")->is_null());
    EXPECT_EQ(at("s")->get_string(), "a") << "up to its first NUL";
    EXPECT_NE(std::dynamic_pointer_cast<export_field_uint64>(at("i")), nullptr);
    EXPECT_EQ(at("i")->get_uint64(), ~0ul);
    EXPECT_EQ(at("i")->get_uint32(), ~0u);
    EXPECT_EQ(at("big")->get_uint64(), ~0ul >> 1);
    ASSERT_EQ(at("l")->length(), 3u);
    EXPECT_EQ(at("l")->at(1)->at(1)->get_uint32(), 3u);
    EXPECT_EQ((*at("l")->at(2))["k"]->get_string(), "v");
    EXPECT_TRUE(at("o")->is_object());
    EXPECT_EQ(at("l")->get_parent(), tree.get());
    EXPECT_EQ(at("l")->at(0)->get_parent(), at("l").get());
    EXPECT_EQ(tree->get_parent(), nullptr);
    EXPECT_EQ(print(*parse("{}")), "{}");
}

/** An object with `depth` containers in all, one within the other. */
std::string nested(size_t depth, const std::string& innermost)
{
    return "{\"a\":" + std::string(depth - 1, '[') + innermost + std::string(depth - 1, ']') + "}";
}

TEST(parsing, refuses_what_is_no_object_in_json_and_says_why)
{
    const std::string unterminated = "export payload is not terminated by NUL";
    const std::string invalid = "export payload is not valid JSON";
    const std::string too_deep = "export payload is nested too deeply";
    const std::string no_object = "export payload's top-level value is not an object";
    std::vector<std::pair<std::string, std::string>> rows;
    const std::string whole = R"({"a":[1,{"b":"c"}],"d":null})";
    for (size_t length = 0; length < whole.size(); ++length) {
        rows.emplace_back(whole.substr(0, length), unterminated);
        rows.emplace_back(whole.substr(0, length) + '\0', invalid);
    }
    rows.emplace_back(whole, unterminated);
    for (const char* text : {"{a:1}", "{\"a\" 1}", "{\"a\":1]", "}", "nonsense", "{\"a\":\"\x01}"})
    {
        rows.emplace_back(text + std::string(1, '\0'), invalid);
    }
    for (const char* text : {"null", "true", "1", "-1.5", "\"text\"", "[]", "[{}]", " null "}) {
        rows.emplace_back(text + std::string(1, '\0'), no_object);
    }
    for (const size_t depth : {33u, 34u, 1000u, 100000u}) {
        rows.emplace_back(nested(depth, "1") + '\0', too_deep);
    }
    json_c_serializer serializer;
    EXPECT_EQ(print(*parse(serializer, std::string("{\"a\":1}\0}", 9))), "{\"a\":1}");
    for (const auto& [bytes, message] : rows) {
        const ptrdiff_t live = support::live_allocations();
        EXPECT_EQ(failure_of([&, &text = bytes] { parse(serializer, text); }),
                  "ROVA_ERROR_INVALID_VALUE deserialize: " + message)
            << bytes.substr(0, 100);
        EXPECT_EQ(support::live_allocations(), live) << bytes.substr(0, 100);
    }
    EXPECT_EQ(print(*parse(serializer, whole + '\0')), whole);
    EXPECT_EQ(print(*parse(nested(31, "1"))), nested(31, "1")) << "as deep as json-c goes";
}

TEST(parsing, that_fails_half_way_leaks_nothing_and_leaves_the_serializer_as_it_was)
{
    const std::string text = print(*tree_of_everything());
    json_c_serializer serializer;
    for (int call = 2; call <= 10; ++call) {
        refused_function = "json_object_get_type";
        refused_call = call;
        const ptrdiff_t live = support::live_allocations();
        EXPECT_EQ(failure_of([&] { parse(serializer, text + '\0'); }),
                  "std::runtime_error: unknown json-c object type")
            << call;
        EXPECT_EQ(support::live_allocations(), live) << call;
        refused_function = {};
        EXPECT_EQ(print(*parse(serializer, text + '\0')), text);
    }
}

std::string random_text(std::mt19937_64& random)
{
    std::string text;
    for (size_t left = random() % 40; left > 0; --left) {
        const auto character = static_cast<char>(random() % 128);
        text += character == 0 ? "\xE2\x82\xAC" : std::string(1, character);
    }
    return text;
}

/** A tree made of random numbers. Where one is given that was read back, it is to be the same. */
field_ptr random_tree(std::mt19937_64& random, char kind, int depth, export_field* found)
{
    uint64_t number = random();
    number >>= random() % 64;
    switch (kind) {
        case 'u':
            EXPECT_TRUE(!found || found->get_uint32() == static_cast<uint32_t>(number));
            return make<export_field_uint32>(static_cast<uint32_t>(number));
        case 'l':
            EXPECT_TRUE(!found || found->get_uint64() == number);
            return make<export_field_uint64>(number);
        case 'd': {
            const double real = std::ldexp(static_cast<double>(number), -100);
            EXPECT_TRUE(!found || found->get_double() == real);
            return make<export_field_double>(real);
        }
        case 'b':
            EXPECT_TRUE(!found || found->get_bool() == (number % 2 == 0));
            return make<export_field_bool>(number % 2 == 0);
        case 's': {
            const std::string text = random_text(random);
            EXPECT_TRUE(!found || found->get_string() == text);
            return make<export_field_string>(text);
        }
        case 'n':
            EXPECT_TRUE(!found || found->is_null());
            return make_null();
        default:
            break;
    }
    const bool is_array = kind == 'a';
    const field_ptr container = is_array ? make_array() : make_object();
    const size_t size = number % 5;
    EXPECT_TRUE(!found || (is_array ? found->length() == size : found->is_object()));
    for (size_t i = 0; i < size; ++i) {
        const std::string key = std::to_string(i) + random_text(random);
        const char inner = "uldbsnaoao"[random() % (depth > 0 ? 10 : 6)];
        const field_ptr child = !found ? nullptr : is_array ? found->at(i) : (*found)[key];
        container->add(key, random_tree(random, inner, depth - 1, child.get()));
    }
    return container;
}

TEST(random_trees, come_back_with_the_same_shape_and_values_and_print_the_same_again)
{
    for (unsigned seed = 0; seed < 3000 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937_64 random(seed);
        const int depth = static_cast<int>(seed % 7);
        const std::string text = print(*random_tree(random, 'o', depth, nullptr));
        const field_ptr found = parse(text);
        random.seed(seed);
        random_tree(random, 'o', depth, found.get());
        EXPECT_EQ(print(*found), text);
    }
}

}  // namespace
