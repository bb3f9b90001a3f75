#include <type_traits>

#include "support/export_helpers.hpp"

namespace {

using core::export_proto;

/** A root object with a null member "a", and a proto that stands for it. */
struct tree {
    field_ptr root = make_object();
    export_proto proto = export_proto(root);
    tree() { (*root)["a"]; }
};

template <class... types>
constexpr bool all_admitted = (std::is_constructible_v<export_proto, types> && ...);
template <class... types>
constexpr bool any_admitted = (std::is_constructible_v<export_proto, types> || ...);

static_assert(all_admitted<bool, unsigned char, unsigned, unsigned long, const char*, char*,
                           std::string, std::nullptr_t, field_ptr, export_proto&&>);
static_assert(!any_admitted<int, long, short, signed char, long long, double, float, const int*,
                            void*, const void*, const unsigned char*, core::export_field*,
                            std::string*, bool*, void (*)(), export_proto&, const export_proto&>,
              "would become a bool, or a copy");
static_assert(!std::is_default_constructible_v<export_proto>);
static_assert(!std::is_copy_assignable_v<export_proto>);

TEST(proto, makes_the_node_that_fits_the_value)
{
    const auto number = [](export_proto proto) {
        EXPECT_TRUE(proto.is_number());
        EXPECT_FALSE(proto.is_bool() || proto.is_null() || proto.is_string());
        return open_proto(std::move(proto)).node();
    };
    using core::export_field_uint32;
    using core::export_field_uint64;
    const field_ptr byte = number(static_cast<unsigned char>(200));
    EXPECT_NE(std::dynamic_pointer_cast<export_field_uint32>(byte), nullptr);
    EXPECT_EQ(byte->get_uint32(), 200u);
    EXPECT_NE(std::dynamic_pointer_cast<export_field_uint32>(number(~0u)), nullptr);
    EXPECT_EQ(number(~0u)->get_uint64(), 0xFFFFFFFFu);
    EXPECT_NE(std::dynamic_pointer_cast<export_field_uint64>(number(5ul)), nullptr);
    EXPECT_EQ(number(~0ul)->get_uint64(), ~0ul);
    EXPECT_EQ(number(~0ul)->get_parent(), nullptr);

    EXPECT_TRUE(export_proto(true).is_bool());
    EXPECT_EQ(text_of(export_proto(false)), "false");
    EXPECT_TRUE(export_proto(nullptr).is_null());
    EXPECT_EQ(export_proto("text").get_string(), "text");
    EXPECT_EQ(export_proto(std::string("a\0b", 3)).get_string().size(), 3u);
    const char* const no_text = nullptr;
    EXPECT_EQ(failure_of([&] { export_proto{no_text}; }).rfind("ROVA_ERROR_INVALID_VALUE ", 0), 0u);
}

TEST(proto, makes_an_object_of_pairs_and_an_array_of_anything_else)
{
    struct {
        export_proto proto;
        const char* text;
    } rows[] = {
        {{{"major", 1u}, {"minor", 2u}}, R"({"major":1,"minor":2})"},
        {{{"same", 1u}, {"same", 2u}}, R"({"same":2})"},
        {{"major", 1u}, R"(["major",1])"},
        {{"major", "minor"}, R"(["major","minor"])"},
        {{{"major", 1u}}, R"({"major":1})"},
        {{{"major", 1u}, 2u}, R"([["major",1],2])"},
        {{2u, {"major", 1u}}, R"([2,["major",1]])"},
        {{{"z", {{"y", {"x", true, nullptr}}}}, {"a", {nullptr}}},
         R"({"a":[],"z":{"y":["x",true,null]}})"},
        {{7u, "s", false}, R"([7,"s",false])"},
        {{nullptr}, "[]"},
        {{nullptr, nullptr}, "[]"},
        {std::initializer_list<export_proto>{}, "[]"},
    };
    for (auto& row : rows) {
        EXPECT_EQ(text_of(std::move(row.proto)), row.text);
    }
}

TEST(proto, shares_the_nodes_that_a_list_is_made_of)
{
    const field_ptr node = make_array();
    const open_proto array(export_proto{export_proto(node), 1u});
    EXPECT_EQ(array.node()->at(0), node);
    EXPECT_EQ(node->get_parent(), array.node().get());
    const open_proto object(export_proto{{"key", export_proto(node)}, {"other", 1u}});
    EXPECT_EQ((*object.node())["key"], node);
    EXPECT_EQ(node->get_parent(), object.node().get());
    EXPECT_EQ(node.use_count(), 3) << "here, in the array and in the object; the pair is gone";
}

TEST(proto, reads_through_its_node)
{
    const field_ptr array = make_array();
    const export_proto proto(array);
    array->add("", make<core::export_field_uint64>(5ul));
    array->add("", make<core::export_field_double>(0.5));
    EXPECT_EQ(proto.length(), 2u);
    EXPECT_EQ(proto[size_t{0}].get_uint32(), 5u);
    EXPECT_EQ(proto[size_t{0}].get_uint64(), 5u);
    EXPECT_EQ(proto[size_t{1}].get_double(), 0.5);
    size_t position = 0;
    for (const core::export_field& element : proto) {
        EXPECT_EQ(&element, array->at(position++).get());
    }
    EXPECT_EQ(position, 2u);
    EXPECT_EQ(failure_of([&] { proto["key"]; }),
              "ROVA_ERROR_NOT_SUPPORTED operator[]: Operator [](string) for non-object value is "
              "not supported");
    const export_proto object(make_object());
    EXPECT_TRUE(object["absent"].is_null());
    EXPECT_EQ(failure_of([&] { object["absent"]["deeper"]["still"].get_uint32(); }),
              "ROVA_ERROR_NOT_PERMITTED get_uint32: export_field type doesn't hold "
              "export_field_uint32");
    EXPECT_FALSE(object.begin() != object.end());
    EXPECT_EQ(print(*object.begin()), R"({"absent":null})");
}

TEST(proto, without_a_node_becomes_an_object_at_its_first_lookup)
{
    open_proto proto;
    EXPECT_EQ(proto.node(), nullptr);
    open_proto seven(export_proto(7u));
    proto["key"] = std::move(seven);
    EXPECT_EQ(seven.node(), nullptr);
    EXPECT_EQ(print(*proto.node()), R"({"key":7})");
    const open_proto moved(std::move(proto));
    EXPECT_EQ(proto.node(), nullptr);
    EXPECT_EQ(moved["key"].get_uint32(), 7u);
}

TEST(assignment, to_a_member_replaces_it_under_its_key)
{
    tree tree;
    const field_ptr former = (*tree.root)["a"];
    open_proto member(tree.proto["a"]);
    open_proto value(export_proto{{"n", 1u}, {"m", 2u}});
    const field_ptr node = value.node();
    EXPECT_EQ(&(member = std::move(value)), &member);
    EXPECT_EQ(value.node(), nullptr);
    EXPECT_EQ((*tree.root)["a"], node);
    EXPECT_EQ(node->get_parent(), tree.root.get());
    EXPECT_EQ(member.node(), former) << "the proto keeps standing for the node it replaced";
    EXPECT_EQ(former->get_parent(), tree.root.get());
    EXPECT_EQ(former.use_count(), 2);
    tree.proto["b"] = export_proto{nullptr};
    tree.proto["b"] += {true, "x"};
    EXPECT_EQ(print(*tree.root), R"({"a":{"m":2,"n":1},"b":[true,"x"]})");
}

TEST(assignment, to_a_root_releases_the_node_it_stood_for)
{
    open_proto root{export_proto(1u)};
    const std::weak_ptr<core::export_field> former = root.node();
    open_proto value{export_proto("text")};
    root = std::move(value);
    EXPECT_EQ(root.get_string(), "text");
    EXPECT_EQ(value.node(), nullptr);
    EXPECT_TRUE(former.expired());
}

TEST(assignment, below_a_null_is_refused_and_changes_nothing)
{
    tree tree;
    const field_ptr null = (*tree.root)["a"];
    open_proto below(tree.proto["a"]["b"]);
    const field_ptr node = below.node();
    open_proto value{export_proto(1u)};
    EXPECT_EQ(failure_of([&] { below = std::move(value); }),
              "ROVA_ERROR_NOT_SUPPORTED remove: Remove child of non-container export_field is not "
              "supported");
    EXPECT_EQ(below.node(), node);
    ASSERT_NE(value.node(), nullptr);
    EXPECT_EQ(value.node()->get_parent(), nullptr);
    EXPECT_EQ((*tree.root)["a"], null);
    EXPECT_EQ(print(*tree.root), R"({"a":null})");
}

TEST(append, adds_in_order_to_an_array_and_is_refused_by_what_holds_nothing)
{
    export_proto array{nullptr};
    array += {1u, {"a", 2u}, nullptr};
    EXPECT_EQ(text_of(std::move(array)), R"([1,["a",2],null])");
    export_proto object(make_object());
    object += {1u, 2u};
    EXPECT_EQ(text_of(std::move(object)), R"({"":2})") << "each under the empty key";
    export_proto number(7u);
    EXPECT_EQ(failure_of([&] { number += {1u}; }),
              "ROVA_ERROR_NOT_SUPPORTED add: Add child to non-container export_field is not "
              "supported");
    EXPECT_EQ(number.get_uint32(), 7u);
}

}  // namespace
