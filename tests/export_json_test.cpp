#include <dlfcn.h>
#include <locale.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>

#include "support/allocation_failure.hpp"
#include "support/export_helpers.hpp"

namespace {

bool text_is_refused = false;
int texts_with_enomem = 0;  // the number of the next texts that leave ENOMEM in errno
int refused_type = 0;       // which of the next calls gives an unknown type; 0: none

/** The function of json-c that this program's function of the same name replaces. */
template <class function>
function* hidden(const char* name, function* /*same_type*/)
{
    return reinterpret_cast<function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
const char* json_object_to_json_string_ext(json_object* value, int flags)
{
    const char* const text =
        text_is_refused ? nullptr : hidden(__func__, json_object_to_json_string_ext)(value, flags);
    errno = --texts_with_enomem >= 0 ? ENOMEM : errno;
    return text;
}
/** Prints as in a locale with a decimal sign of several bytes, unless the thread uses another. */
ROVA_API __attribute__((format(printf, 5, 6))) int
// NOLINTNEXTLINE(readability-identifier-naming): what the C library calls it
__snprintf_chk(char* text, size_t size, int, size_t, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, size, format, arguments);
    va_end(arguments);
    char* const point = std::strchr(text, '.');
    if (point == nullptr || uselocale(nullptr) != LC_GLOBAL_LOCALE) {
        return length;
    }
    std::memmove(point + 2, point + 1, std::strlen(point));
    point[0] = '\xD9';
    point[1] = '\xAB';
    return length + 1;
}
json_type json_object_get_type(const json_object* value)
{
    return --refused_type == 0 ? static_cast<json_type>(7)  // none of json-c's
                               : hidden(__func__, json_object_get_type)(value);
}
}

namespace {

using namespace core;
using proto = export_proto;

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

TEST(printing, of_any_value_takes_the_place_of_the_last_one)
{
    const ptrdiff_t live = support::live_allocations();
    {
        const field_ptr list = make_array({make_object()});
        json_c_serializer serializer;
        const uint8_t* blob = nullptr;
        uint32_t length = 0;
        const auto serialize = [&] { serializer.serialize(&blob, &length); };
        const std::pair<field_ptr, std::string> rows[] = {
            {nullptr, "null"}, {make<export_field_uint32>(7u), "7"},      {list, "[{}]"},
            {list, "[{}]"},    {make<export_field_bool>(true), "true"},   {make_null(), "null"},
            {list, "[{}]"},    {make<export_field_double>(-2.0), "-2.0"},
        };
        for (const auto& [value, text] : rows) {
            if (value != nullptr) {
                value->accept(serializer);
            }
            serialize();
            EXPECT_EQ(reinterpret_cast<const char*>(blob), text);
            EXPECT_EQ(length, text.size() + 1);
        }
        errno = EDOM;
        texts_with_enomem = 1;
        EXPECT_EQ(failure_of(serialize), "nothing") << "it may be a success's errno";
        texts_with_enomem = 2;
        EXPECT_EQ(failure_of(serialize),
                  "NO_MEMORY serialize: json_object_to_json_string_ext failed");
        text_is_refused = true;
        texts_with_enomem = 2;
        EXPECT_EQ(failure_of(serialize), "logic error");
        text_is_refused = false;
        EXPECT_EQ(errno, EDOM) << "the caller's";
    }
    EXPECT_EQ(support::live_allocations(), live);
}

TEST(parsing, gives_every_value_its_class)
{
    const field_ptr tree =
        parse(R"( {"d":1.5, "t":true, "f":false, "n":null, "s":"a\u0000b", "e":1e2,)"
              R"( "i":-1, "l":[1,[2,3],{"k":"v"}], "o":{}, "big":9223372036854775807, 'q':'"}'} )");
    const auto at = [&](const char* key) { return (*tree)[key]; };
    EXPECT_EQ(at("d")->get_double(), 1.5);
    EXPECT_EQ(at("e")->get_double(), 100.0);
    EXPECT_TRUE(at("t")->get_bool() && !at("f")->get_bool() && at("n")->is_null());
    EXPECT_EQ(at("s")->get_string(), "a") << "up to its first NUL";
    EXPECT_EQ(at("q")->get_string(), "\"}");
    EXPECT_EQ(at("i")->get_uint64(), ~0ul);
    EXPECT_EQ(at("big")->get_uint64(), ~0ul >> 1);
    EXPECT_EQ(at("l")->length(), 3u);
    EXPECT_EQ(at("l")->at(1)->at(1)->get_uint32(), 3u);
    EXPECT_EQ((*at("l")->at(2))["k"]->get_string(), "v");
    EXPECT_TRUE(at("o")->is_object());
    EXPECT_EQ(at("l")->get_parent(), tree.get());
    EXPECT_EQ(at("l")->at(0)->get_parent(), at("l").get());
    EXPECT_EQ(tree->get_parent(), nullptr);
}

/** An object with `depth` nested containers, itself included. */
std::string nested(size_t depth)
{
    return "{\"a\":" + std::string(depth - 1, '[') + "1" + std::string(depth - 1, ']') + "}";
}

TEST(parsing, refuses_what_is_not_a_json_object_and_says_why)
{
    const std::string whole = R"({"a":[1,{"b":"c"}],"d":null})";
    std::vector<std::pair<std::string, std::string>> rows = {{whole, " is not terminated by NUL"}};
    const auto refused = [&](const std::string& message, const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            rows.emplace_back(text + '\0', message);
        }
    };
    for (size_t length = 0; length < whole.size(); ++length) {
        rows.emplace_back(whole.substr(0, length), " is not terminated by NUL");
        refused(" is not valid JSON", {whole.substr(0, length)});
    }
    refused(" is not valid JSON",
            {"{a:1}", "{\"a\" 1}", "{\"a\":1]", "}", "nonsense", "{\"a\":\"\x01}", "{\"a\":\"\\"});
    refused("'s top-level value is not an object",
            {"null", "true", "1", "-1.5", "\"text\"", "[]", "[{}]", " null "});
    refused(" is nested too deeply", {nested(33), nested(34), nested(100000)});
    const locale_t own = newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
    uselocale(own);
    errno = EDOM;
    json_c_serializer serializer;
    for (const auto& [bytes, message] : rows) {
        SCOPED_TRACE(bytes.substr(0, 100));
        const ptrdiff_t live = support::live_allocations();
        EXPECT_EQ(failure_of([&, &text = bytes] { parse(serializer, text); }),
                  "INVALID_VALUE deserialize: export payload" + message);
        EXPECT_EQ(support::live_allocations(), live);
    }
    for (int call = 2; call <= 5; ++call) {
        const ptrdiff_t live = support::live_allocations();
        refused_type = call;
        EXPECT_EQ(failure_of([&] { parse(serializer, whole + '\0'); }),
                  "unknown json-c object type");
        EXPECT_EQ(support::live_allocations(), live) << call;
    }
    EXPECT_EQ(print(*parse(serializer, whole + '\0' + '}')), whole) << "it is as good as new";
    EXPECT_EQ(print(*parse(nested(31))), nested(31)) << "as deep as json-c goes";
    EXPECT_EQ(errno, EDOM) << "the caller's";
    EXPECT_EQ(uselocale(LC_GLOBAL_LOCALE), own);
    freelocale(own);
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

/** A random tree. If a tree that was read back is given, it must equal that one. */
field_ptr random_tree(std::mt19937_64& random, char kind, int depth, const field_ptr& found)
{
    uint64_t number = random();
    number >>= random() % 64;
    const auto leaf = [&](const field_ptr& made, auto value) {
        EXPECT_TRUE(!found || ((*found).*value)() == ((*made).*value)());
        return made;
    };
    switch (kind) {
        case 'u':
            return leaf(make<export_field_uint32>(static_cast<uint32_t>(number)),
                        &export_field::get_uint32);
        case 'l':
            return leaf(make<export_field_uint64>(number), &export_field::get_uint64);
        case 'd':
            return leaf(make<export_field_double>(std::ldexp(static_cast<double>(number), -100)),
                        &export_field::get_double);
        case 'b':
            return leaf(make<export_field_bool>(number % 2 == 0), &export_field::get_bool);
        case 's':
            return leaf(make<export_field_string>(random_text(random)), &export_field::get_string);
        case 'n':
            return leaf(make_null(), &export_field::is_null);
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
        container->add(key, random_tree(random, inner, depth - 1, child));
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
        random_tree(random, 'o', depth, found);
        EXPECT_EQ(print(*found), text);
    }
}

}  // namespace
