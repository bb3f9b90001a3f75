#include <set>
#include <tuple>
#include <type_traits>

#include "support/export_helpers.hpp"

namespace {

using namespace core;
using weak_field_ptr = std::weak_ptr<export_field>;

struct operation {
    const char* name;
    void (*run)(export_field& field, const field_ptr& argument);
    const char* failure;
};

const operation operations[] = {
    {"add", [](export_field& field, const field_ptr& argument) { field.add("key", argument); },
     "ROVA_ERROR_NOT_SUPPORTED add: Add child to non-container export_field is not supported"},
    {"remove", [](export_field& field, const field_ptr& argument) { field.remove(argument); },
     "ROVA_ERROR_NOT_SUPPORTED remove: Remove child of non-container export_field is not "
     "supported"},
    {"at", [](export_field& field, const field_ptr&) { field.at(0); },
     "ROVA_ERROR_NOT_SUPPORTED at: get child at index of non-array export_field is not supported"},
    {"[key]", [](export_field& field, const field_ptr&) { field[std::string("key")]; },
     "ROVA_ERROR_NOT_SUPPORTED operator[]: Operator [](string) for non-object value is not "
     "supported"},
    {"[index]", [](export_field& field, const field_ptr&) { field[size_t{0}]; },
     "ROVA_ERROR_NOT_SUPPORTED operator[]: Operator [](size_t) for non-array value is not "
     "supported"},
    {"+=", [](export_field& field, const field_ptr& argument) { field += {argument.get()}; },
     "ROVA_ERROR_NOT_SUPPORTED operator+=: Operator += for non-array export_field is not "
     "supported"},
    {"uint32", [](export_field& field, const field_ptr&) { std::ignore = field.get_uint32(); },
     "ROVA_ERROR_NOT_PERMITTED get_uint32: export_field type doesn't hold export_field_uint32"},
    {"uint64", [](export_field& field, const field_ptr&) { std::ignore = field.get_uint64(); },
     "ROVA_ERROR_NOT_PERMITTED get_uint64: export_field type doesn't hold export_field_uint64"},
    {"double", [](export_field& field, const field_ptr&) { std::ignore = field.get_double(); },
     "ROVA_ERROR_NOT_PERMITTED get_double: export_field type doesn't hold double"},
    {"bool", [](export_field& field, const field_ptr&) { std::ignore = field.get_bool(); },
     "ROVA_ERROR_NOT_PERMITTED get_bool: export_field type doesn't hold bool"},
    {"string", [](export_field& field, const field_ptr&) { std::ignore = field.get_string(); },
     "ROVA_ERROR_NOT_PERMITTED get_string: export_field type doesn't hold string"},
};

struct node_class {
    const char* name;
    field_ptr node;
    const char* type;
    std::set<std::string> offers;
};

std::vector<node_class> node_classes()
{
    return {
        {"uint32", make<export_field_uint32>(7u), "number", {"uint32", "uint64"}},
        {"uint64", make<export_field_uint64>(7ul), "number", {"uint32", "uint64"}},
        {"double", make<export_field_double>(1.0), "number", {"double"}},
        {"bool", make<export_field_bool>(true), "boolean", {"bool"}},
        {"string", make<export_field_string>("s"), "string", {"string"}},
        {"null", make_null(), "null", {"[key]", "[index]"}},
        {"array", make_array(), "array", {"add", "at", "[index]"}},
        {"object", make_object(), "object", {"add", "remove", "[key]"}},
    };
}

std::string type_of(const export_field& field)
{
    return std::string(field.is_null() ? "null" : "") + (field.is_number() ? "number" : "") +
           (field.is_bool() ? "boolean" : "") + (field.is_string() ? "string" : "") +
           (field.is_array() ? "array" : "") + (field.is_object() ? "object" : "");
}

field_ptr array_of(const std::vector<field_ptr>& elements)
{
    field_ptr array = make_array();
    for (const field_ptr& element : elements) {
        array->add("not used", element);
    }
    return array;
}

template <class... fields>
constexpr bool stay_in_place = ((!std::is_copy_constructible_v<fields> &&
                                 !std::is_move_constructible_v<fields> &&
                                 !std::is_copy_assignable_v<fields> &&
                                 !std::is_move_assignable_v<fields>)&&...);

static_assert(
    stay_in_place<export_field_uint32, export_field_uint64, export_field_double, export_field_bool,
                  export_field_string, export_field_null, export_field_array, export_field_object>);

TEST(field, refuses_what_its_class_does_not_offer_and_stays_as_it_is)
{
    for (const node_class& tested : node_classes()) {
        const size_t length = tested.node->length();
        EXPECT_EQ(length, type_of(*tested.node) == "array" ? 0u : 1u) << tested.name;
        EXPECT_EQ(type_of(*tested.node), tested.type);
        EXPECT_FALSE(tested.node->is_key_val_pair());
        for (const operation& refused : operations) {
            if (tested.offers.count(refused.name) != 0) {
                continue;
            }
            const field_ptr argument = make_null();
            EXPECT_EQ(failure_of([&] { refused.run(*tested.node, argument); }), refused.failure)
                << tested.name << " " << refused.name;
            EXPECT_EQ(argument->get_parent(), nullptr) << tested.name << " " << refused.name;
            EXPECT_EQ(argument.use_count(), 1) << tested.name << " " << refused.name;
            EXPECT_EQ(tested.node->length(), length) << tested.name << " " << refused.name;
            EXPECT_EQ(tested.node->get_parent(), nullptr) << tested.name << " " << refused.name;
        }
    }
}

TEST(field, knows_its_parent_and_keeps_it_when_the_parent_lets_go)
{
    for (const node_class& tested : node_classes()) {
        const field_ptr first = make_array();
        const field_ptr second = make_object();
        first->add("", tested.node);
        EXPECT_EQ(tested.node->get_parent(), first.get()) << tested.name;
        second->add("key", tested.node);
        EXPECT_EQ(tested.node->get_parent(), second.get()) << tested.name;
        second->remove(tested.node);
        EXPECT_EQ(tested.node->get_parent(), second.get()) << tested.name;
        tested.node->set_parent(nullptr);
        EXPECT_EQ(tested.node->get_parent(), nullptr) << tested.name;
    }
}

TEST(field, that_is_no_array_is_iterated_zero_times_and_begins_at_itself)
{
    for (const node_class& tested : node_classes()) {
        if (tested.node->is_array()) {
            continue;
        }
        tested.node->set_parent(nullptr);
        for (const export_field& never : *tested.node) {
            ADD_FAILURE() << tested.name << type_of(never);
        }
        const export_field::iterator begin = tested.node->begin();
        EXPECT_FALSE(begin != tested.node->end()) << tested.name;
        EXPECT_EQ(&*begin, tested.node.get()) << tested.name;
        EXPECT_EQ(tested.node.use_count(), 1) << tested.name;
    }
}

TEST(scalar, gives_its_value_in_the_widths_that_its_class_offers)
{
    struct {
        field_ptr node;
        uint32_t low;
        uint64_t whole;
    } const numbers[] = {
        {make<export_field_uint32>(0u), 0, 0},
        {make<export_field_uint32>(4294967295u), 4294967295u, 4294967295u},
        {make<export_field_uint64>(4294967301ul), 5, 4294967301ul},
        {make<export_field_uint64>(~0ul), ~0u, ~0ul},
    };
    for (const auto& number : numbers) {
        EXPECT_EQ(number.node->get_uint32(), number.low);
        EXPECT_EQ(number.node->get_uint64(), number.whole);
    }
    EXPECT_EQ(make<export_field_double>(-0.5)->get_double(), -0.5);
    EXPECT_TRUE(make<export_field_bool>(true)->get_bool());
    EXPECT_FALSE(make<export_field_bool>(false)->get_bool());
    EXPECT_EQ(make<export_field_string>(std::string("a\0b", 3))->get_string(),
              std::string("a\0b", 3));
}

TEST(null_field, gives_a_new_null_for_every_lookup_and_keeps_none)
{
    const field_ptr null = make_null();
    const field_ptr found[] = {(*null)["key"], (*null)["key"], (*null)[size_t{9}]};
    EXPECT_NE(found[0], found[1]);
    for (const field_ptr& child : found) {
        EXPECT_TRUE(child->is_null());
        EXPECT_EQ(child->get_parent(), null.get());
        EXPECT_EQ(child.use_count(), 1);
    }
    EXPECT_EQ(null->length(), 1u);
}

TEST(array, holds_its_elements_in_the_order_they_came)
{
    const std::vector<field_ptr> nodes = {make_null(), make_object(),
                                          make<export_field_bool>(true)};
    const field_ptr array = array_of(nodes);
    EXPECT_EQ(array->length(), 3u);
    size_t position = 0;
    export_field::iterator it = array->begin();
    for (; it != array->end(); ++it, ++position) {
        EXPECT_EQ(&*it, nodes[position].get());
        EXPECT_EQ(array->at(position), nodes[position]);
        EXPECT_EQ((*array)[position], nodes[position]);
        EXPECT_EQ(nodes[position].use_count(), 3) << "the array and the iterator hold it";
    }
    EXPECT_EQ(position, 3u);
    EXPECT_EQ(failure_of([&] { array->at(3); }), "std::out_of_range");
    EXPECT_EQ(failure_of([&] { make_array()->at(0); }), "std::out_of_range");
    EXPECT_FALSE(make_array()->begin() != make_array()->end());

    export_field::iterator from_first = array->begin();
    const export_field::iterator second = ++from_first;
    EXPECT_EQ(&*second, nodes[1].get());
    ++from_first;
    EXPECT_EQ(&*second, nodes[1].get()) << "a copy of the iterator stays where it was";
}

TEST(array, is_a_pair_when_a_string_and_one_more_node_are_in_it)
{
    const auto text = [] { return make<export_field_string>("s"); };
    const auto number = [] { return make<export_field_uint32>(1u); };
    EXPECT_TRUE(array_of({text(), number()})->is_key_val_pair());
    EXPECT_TRUE(array_of({text(), make_array()})->is_key_val_pair());
    EXPECT_FALSE(array_of({number(), text()})->is_key_val_pair());
    EXPECT_FALSE(array_of({text()})->is_key_val_pair());
    EXPECT_FALSE(array_of({text(), number(), number()})->is_key_val_pair());
}

TEST(object, holds_one_node_under_a_key_and_makes_up_a_null_for_a_key_it_lacks)
{
    const field_ptr object = make_object();
    const field_ptr made_up = (*object)["b"];
    EXPECT_TRUE(made_up->is_null());
    EXPECT_EQ(made_up->get_parent(), object.get());
    EXPECT_EQ((*object)["b"], made_up);
    EXPECT_EQ(print(*object), "{\"b\":null}");

    const field_ptr node = make_array();
    object->add("b", node);
    object->add("a", node);
    EXPECT_EQ((*object)["b"], node);
    EXPECT_EQ(print(*object), "{\"a\":[],\"b\":[]}");

    EXPECT_EQ(object->remove(made_up), "") << "replaced, so no member any more";
    EXPECT_EQ(object->remove(node), "a") << "the first key in order";
    EXPECT_EQ(print(*object), "{\"b\":[]}");
    EXPECT_EQ(object->remove(node), "b");
    EXPECT_EQ(object->remove(node), "");
    EXPECT_EQ(print(*object), "{}");
}

TEST(container, releases_a_child_that_nobody_else_holds)
{
    field_ptr object = make_object();
    const weak_field_ptr replaced = (*object)["key"];
    EXPECT_FALSE(replaced.expired());
    object->add("key", make_null());
    EXPECT_TRUE(replaced.expired());

    const weak_field_ptr removed = (*object)["key"];
    EXPECT_EQ(object->remove(removed.lock()), "key");
    EXPECT_TRUE(removed.expired());

    const field_ptr held = make_null();
    const weak_field_ptr inner = object->operator[]("deep");
    object->add("array", array_of({held, make_object()}));
    const weak_field_ptr element = (*object)["array"]->at(1);
    object.reset();
    EXPECT_TRUE(inner.expired());
    EXPECT_TRUE(element.expired());
    EXPECT_EQ(held.use_count(), 1);

    field_ptr array = array_of({make_null()});
    const weak_field_ptr walked = array->at(0);
    const export_field::iterator it = array->begin();
    array.reset();
    EXPECT_FALSE(walked.expired()) << "an iterator holds the element it stands on";
    EXPECT_TRUE((*it).is_null());
}

}  // namespace
