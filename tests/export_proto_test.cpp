#include <atomic>
#include <tuple>
#include <type_traits>
#include <vector>

#include "support/export_helpers.hpp"

#ifdef __clang__
#pragma clang diagnostic ignored "-Wbraced-scalar-init"  // one form of an empty array
#endif

namespace {

using core::export_proto;

/** A root object with a null member "a", and a proto that refers to the object. */
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
    const auto node = [](export_proto&& proto) {
        EXPECT_TRUE(proto.is_number() && !proto.is_bool() && !proto.is_null());
        const field_ptr made = open_proto(std::move(proto)).node();
        EXPECT_TRUE(made->get_parent() == nullptr && made.use_count() == 1);
        return std::tuple(std::dynamic_pointer_cast<core::export_field_uint64>(made) != nullptr,
                          made->get_uint32(), made->get_uint64());
    };
    EXPECT_EQ(node(static_cast<unsigned char>(200)), std::tuple(false, 200u, 200ul));
    EXPECT_EQ(node(~0u), std::tuple(false, ~0u, 0xFFFFFFFFul));
    EXPECT_EQ(node(5ul), std::tuple(true, 5u, 5ul));
    EXPECT_EQ(node(~0ul - 1), std::tuple(true, ~0u - 1, ~0ul - 1));
    EXPECT_EQ(export_proto(std::string("a\0b", 3)).get_string().size(), 3u);
    const char* const no_text = nullptr;
    EXPECT_EQ(failure_of([&] { export_proto{no_text}; }),
              "INVALID_VALUE export_proto: export_proto text is NULL");
}

TEST(proto, makes_an_object_of_pairs_and_an_array_of_anything_else)
{
    std::vector<bool> flags = {true};
    const std::atomic<bool> flag(true);
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
        {{{1u, "major"}, {"a", 1u, 2u}}, R"([[1,"major"],["a",1,2]])"},
        {{{"z", {{"y", {"x", true, nullptr}}}}, {"a", {nullptr}}},
         R"({"a":[],"z":{"y":["x",true,null]}})"},
        {{export_proto(0u)}, "[0]"},
        {{0u, 1u}, "[0,1]"},
        {export_proto(flags[0]), "true"},
        {export_proto(flag), "true"},
        {std::initializer_list<export_proto>{}, "[]"},
        {{nullptr}, "[]"},
        {{nullptr, nullptr}, "[]"},
        {{{nullptr}}, "[]"},
        {{{nullptr}, 1u}, "[[],1]"},
        {{0}, "[]"},   // NOLINT(modernize-use-nullptr): a null pointer, too
        {{0u}, "[]"},  // NOLINT(modernize-use-nullptr)
    };
    for (auto& row : rows) {
        EXPECT_EQ(text_of(std::move(row.proto)), row.text);
    }
}

TEST(proto, shares_the_nodes_that_a_list_is_made_of)
{
    const field_ptr node = make_array();
    const open_proto array(export_proto{export_proto(node), 1u});
    EXPECT_EQ(node->get_parent(), array.node().get());
    const open_proto object(export_proto{{"key", export_proto(node)}, {"other", 1u}});
    EXPECT_EQ((*object.node())["key"], node);
    EXPECT_EQ(node->get_parent(), object.node().get());
    EXPECT_EQ(node.use_count(), 3) << "here, in the array and in the object; the pair is gone";
}

TEST(proto, reads_through_its_node)
{
    const export_proto proto(make_array({make<core::export_field_double>(0.5), make_null()}));
    double sum = 0;
    for (const core::export_field& element : proto) {
        sum += element.is_null() ? 1 : element.get_double();
    }
    EXPECT_EQ(std::tuple(proto.length(), proto[size_t{0}].get_double(), sum),
              std::tuple(2u, 0.5, 1.5));
    const export_proto object(make_object());
    EXPECT_EQ(failure_of([&] { object["absent"]["deeper"]["still"].get_uint32(); }),
              "NOT_PERMITTED get_uint32: export_field type doesn't hold export_field_uint32");
    EXPECT_EQ(print(*object.begin()), R"({"absent":null})");
}

TEST(proto, without_a_node_becomes_an_object_at_its_first_lookup)
{
    open_proto proto;
    proto["key"] = export_proto(7u);
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
    EXPECT_EQ(former.use_count(), 2) << "here and in the proto";
    member = open_proto(export_proto(1u));
    EXPECT_EQ(tree.root->remove((*tree.root)[""]), "") << "no member's place, no key";
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
    EXPECT_EQ(value.node(), nullptr);
    EXPECT_TRUE(former.expired());
    open_proto& itself = root;
    root = std::move(itself);
    value = std::move(root);
    EXPECT_EQ(value.get_string(), "text");
}

TEST(assignment, below_a_null_is_refused_and_changes_nothing)
{
    tree tree;
    open_proto below(tree.proto["a"]["b"]);
    const field_ptr node = below.node();
    open_proto value{export_proto(1u)};
    EXPECT_EQ(failure_of([&] { below = std::move(value); }),
              "NOT_SUPPORTED remove: Remove child of non-container export_field is not supported");
    EXPECT_EQ(below.node(), node);
    ASSERT_NE(value.node(), nullptr);
    EXPECT_EQ(value.node()->get_parent(), nullptr);
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
              "NOT_SUPPORTED add: Add child to non-container export_field is not supported");
}

}  // namespace
