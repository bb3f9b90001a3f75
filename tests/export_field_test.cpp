#include <iterator>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>

#include "support/export_helpers.hpp"

namespace {

using namespace core;
using node = export_field;

struct operation {
    const char* name;
    const char* failure;
    void (*run)(node& field, const field_ptr& argument);
};

const operation operations[] = {
    {"add", "NOT_SUPPORTED add: Add child to non-container export_field is not supported",
     [](node& field, const field_ptr& argument) { field.add("key", argument); }},
    {"remove", "NOT_SUPPORTED remove: Remove child of non-container export_field is not supported",
     [](node& field, const field_ptr& argument) { field.remove(argument); }},
    {"at", "NOT_SUPPORTED at: get child at index of non-array export_field is not supported",
     [](node& field, const field_ptr&) { field.at(0); }},
    {"[key]", "NOT_SUPPORTED operator[]: Operator [](string) for non-object value is not supported",
     [](node& field, const field_ptr&) { field["key"]; }},
    {"[i]", "NOT_SUPPORTED operator[]: Operator [](size_t) for non-array value is not supported",
     [](node& field, const field_ptr&) { field[size_t{0}]; }},
    {"+=", "NOT_SUPPORTED operator+=: Operator += for non-array export_field is not supported",
     [](node& field, const field_ptr& argument) { field += {argument.get()}; }},
    {"uint32", "NOT_PERMITTED get_uint32: export_field type doesn't hold export_field_uint32",
     [](node& field, const field_ptr&) { std::ignore = field.get_uint32(); }},
    {"uint64", "NOT_PERMITTED get_uint64: export_field type doesn't hold export_field_uint64",
     [](node& field, const field_ptr&) { std::ignore = field.get_uint64(); }},
    {"double", "NOT_PERMITTED get_double: export_field type doesn't hold double",
     [](node& field, const field_ptr&) { std::ignore = field.get_double(); }},
    {"bool", "NOT_PERMITTED get_bool: export_field type doesn't hold bool",
     [](node& field, const field_ptr&) { std::ignore = field.get_bool(); }},
    {"string", "NOT_PERMITTED get_string: export_field type doesn't hold string",
     [](node& field, const field_ptr&) { std::ignore = field.get_string(); }},
};

struct bare_field : export_field {
    bare_field() : export_field(type::unknown, nullptr) {}
};

using type_question = bool (node::*)() const;
const type_question type_questions[] = {&node::is_null,   &node::is_number, &node::is_bool,
                                        &node::is_string, &node::is_array,  &node::is_object};

struct node_class {
    const char* name;
    field_ptr field;
    type_question type;
    std::set<std::string> offers;
};

std::vector<node_class> node_classes()
{
    return {
        {"bare", std::make_shared<bare_field>(), nullptr, {}},
        {"uint32", make<export_field_uint32>(7u), &node::is_number, {"uint32", "uint64"}},
        {"uint64", make<export_field_uint64>(7ul), &node::is_number, {"uint32", "uint64"}},
        {"double", make<export_field_double>(1.0), &node::is_number, {"double"}},
        {"bool", make<export_field_bool>(true), &node::is_bool, {"bool"}},
        {"string", make<export_field_string>("s"), &node::is_string, {"string"}},
        {"null", make_null(), &node::is_null, {"[key]", "[i]"}},
        {"array", make_array(), &node::is_array, {"add", "at", "[i]"}},
        {"object", make_object(), &node::is_object, {"add", "remove", "[key]"}},
    };
}

static_assert(!std::is_copy_constructible_v<export_field_null> &&
              !std::is_copy_assignable_v<export_field_null>);

TEST(field, refuses_what_its_class_does_not_offer_and_stays_as_it_is)
{
    for (const auto& [name, field, type, offers] : node_classes()) {
        for (const type_question is_it : type_questions) {
            EXPECT_EQ(((*field).*is_it)(), is_it == type) << name;
        }
        EXPECT_FALSE(field->is_key_val_pair()) << name;
        for (const operation& refused : operations) {
            if (offers.count(refused.name) != 0) {
                continue;
            }
            SCOPED_TRACE(std::string(name) + " " + refused.name);
            const field_ptr argument = make_null();
            EXPECT_EQ(failure_of([&, &tested = *field] { refused.run(tested, argument); }),
                      refused.failure);
            EXPECT_TRUE(argument->get_parent() == nullptr && argument.use_count() == 1);
            EXPECT_EQ(field->length(), field->is_array() ? 0u : 1u);
        }
    }
    struct : export_field_serializer {
        void serialize(const uint8_t**, uint32_t*) override {}
        export_field* deserialize(const uint8_t*, uint32_t) override { return nullptr; }
    } looks_at_nothing;
    for (const auto& [name, field, type, offers] : node_classes()) {
        EXPECT_EQ(
            failure_of([&, &tested = *field] { tested.accept(looks_at_nothing); }),
            type != nullptr ? "nothing" : "NOT_SUPPORTED accept: export_field can't be serialized");
    }
}

TEST(field, knows_its_parent_even_after_the_parent_has_dropped_it)
{
    const field_ptr child = make_null();
    const field_ptr first = make_array({child});
    const field_ptr second = make_object();
    EXPECT_EQ(child->get_parent(), first.get());
    second->add("key", child);
    EXPECT_EQ(child->get_parent(), second.get());
    EXPECT_EQ(second->remove(child), "key");
    EXPECT_EQ(child->get_parent(), second.get());
}

TEST(field, that_is_not_an_array_is_iterated_zero_times_and_begins_at_itself)
{
    for (const auto& [name, field, type, offers] : node_classes()) {
        const node::iterator begin = field->begin();
        EXPECT_FALSE(begin != field->end()) << name;
        EXPECT_TRUE(field->is_array() || &*begin == field.get()) << name;
        EXPECT_EQ(field.use_count(), 1) << name;
    }
}

TEST(null_field, gives_a_new_null_for_every_lookup_and_keeps_none)
{
    const field_ptr null = make_null();
    for (const field_ptr& child : {(*null)["key"], (*null)[size_t{9}]}) {
        EXPECT_TRUE(child->is_null() && child != (*null)["key"]);
        EXPECT_EQ(child->get_parent(), null.get());
    }
    const std::weak_ptr<export_field> unkept = (*null)["key"];
    EXPECT_TRUE(unkept.expired());
}

TEST(array, holds_its_elements_in_the_order_of_their_addition)
{
    const std::vector<field_ptr> nodes = {make_null(), make_object(), make_array()};
    const field_ptr array = make_array(nodes);
    size_t position = 0;
    for (node::iterator it = array->begin(); it != array->end(); ++it, ++position) {
        EXPECT_EQ(&*it, nodes.at(position).get());
        EXPECT_EQ(array->at(position), nodes[position]);
        EXPECT_EQ((*array)[position], nodes[position]);
        EXPECT_EQ(nodes[position].use_count(), 3) << "the array and the iterator hold it";
    }
    EXPECT_EQ(std::tuple(position, array->length()), std::tuple(3u, 3u));
    EXPECT_EQ(failure_of([&] { array->at(3); }), "out of range");

    node::iterator walking = array->begin();
    const node::iterator second = ++walking;
    EXPECT_TRUE(&*++walking == nodes[2].get() && &*second == nodes[1].get()) << "a copy stays";
}

/** Visits each number, and prints like its base. */
struct number_watcher : json_c_serializer {
    using json_c_serializer::visit;
    void visit(const export_field_uint32& field) override { see(field); }
    void visit(const export_field_uint64& field) override { see(field); }
    template <class field_class>
    void see(const field_class& field)
    {
        seen.push_back(&field);
        json_c_serializer::visit(field);
    }
    std::vector<const node*> seen;
};

TEST(array_of_bytes, makes_nodes_that_stay_for_whoever_asks_and_none_for_the_text)
{
    using byte_class = export_field_array::byte_class;
    const std::vector<uint8_t> bytes = {7, 255, 0};
    for (const byte_class nodes_are : {byte_class::uint32, byte_class::uint64}) {
        const auto array = std::make_shared<export_field_array>(bytes, nodes_are, nullptr);
        const field_ptr object = make_object();
        object->add("a", array);
        EXPECT_EQ(print(*object), R"({"a":[7,255,0]})");
        EXPECT_EQ(export_proto(array).to_bytes(), bytes);
        EXPECT_EQ(std::tuple(array->length(), array->is_key_val_pair()), std::tuple(3u, false));
        EXPECT_EQ(array->kept_bytes(), bytes) << "nobody has asked for a node";

        number_watcher watcher;
        object->accept(watcher);
        size_t position = 0;
        for (const node& element : export_proto(array)) {
            EXPECT_EQ(&element, array->at(position).get());
            EXPECT_EQ(&element, (*array)[position].get());
            EXPECT_EQ(&element, watcher.seen.at(position));
            EXPECT_EQ(dynamic_cast<const export_field_uint64*>(&element) != nullptr,
                      nodes_are == byte_class::uint64);
            EXPECT_EQ(element.get_parent(), array.get());
            EXPECT_EQ(element.get_uint64(), bytes.at(position++));
        }
        EXPECT_EQ(std::tuple(position, array->length()), std::tuple(3u, 3u));
        EXPECT_EQ(failure_of([&] { array->at(3); }), "out of range");
        EXPECT_EQ(print(*object), R"({"a":[7,255,0]})");
        EXPECT_EQ(export_proto(array).to_bytes(), bytes);
    }
    const field_ptr object = make_object();
    export_proto proto(object);
    proto["a"] = export_proto::from_bytes(bytes);
    proto["a"] += {"more"};
    EXPECT_EQ(print(*object), R"({"a":[7,255,0,"more"]})");
}

TEST(object, holds_one_node_under_a_key_and_adds_a_null_for_a_missing_key)
{
    const field_ptr object = make_object();
    const field_ptr made_up = (*object)["b"];
    EXPECT_EQ(made_up->get_parent(), object.get());
    EXPECT_EQ((*object)["b"], made_up);
    EXPECT_EQ(print(*object), R"({"b":null})");

    const field_ptr twice = make_array();
    object->add("b", twice);
    object->add("a", twice);
    EXPECT_EQ(print(*object), R"({"a":[],"b":[]})");
    EXPECT_EQ(object->remove(made_up), "") << "replaced, so no member any more";
    EXPECT_EQ(object->remove(twice), "a") << "the first key in order";
    EXPECT_EQ(print(*object), R"({"b":[]})");
}

TEST(object, keeps_many_members_in_order_however_they_come_and_go)
{
    for (const size_t step : {1u, 999u, 387u}) {
        const field_ptr object = make_object();
        std::map<std::string, size_t> model;
        for (size_t i = 0; i < 1000; ++i) {
            const size_t number = i * step % 1000;
            object->add(std::to_string(number), make<export_field_uint64>(number));
            model[std::to_string(number)] = number;
        }
        // Whole ranges of keys, the lowest and the highest among them.
        for (auto member = model.begin(); member != model.end();) {
            const std::string& key = member->first;
            const bool goes = std::string("0149").find(key[0]) != std::string::npos;
            EXPECT_EQ(goes ? object->remove((*object)[key]) : key, key);
            member = goes ? model.erase(member) : std::next(member);
        }
        auto& members = static_cast<core::export_field_object&>(*object);
        EXPECT_TRUE(members.replace((*object)["5"], make<export_field_uint64>(7)));
        model["5"] = 7;
        std::string text = R"({"0":null)";
        for (const auto& [key, number] : model) {
            text += ",\"" + key + "\":" + std::to_string(number);
        }
        EXPECT_TRUE((*object)["0"]->is_null());
        EXPECT_EQ(print(*object), text + "}") << step;
    }
}

TEST(container, releases_a_child_that_nobody_else_holds)
{
    using weak_field_ptr = std::weak_ptr<export_field>;
    field_ptr object = make_object();
    const weak_field_ptr replaced = (*object)["key"];
    EXPECT_FALSE(replaced.expired());
    object->add("key", make_null());
    EXPECT_TRUE(replaced.expired());

    const weak_field_ptr removed = (*object)["key"];
    EXPECT_EQ(object->remove(removed.lock()), "key");
    EXPECT_TRUE(removed.expired());

    const field_ptr held = make_null();
    field_ptr array = make_array({held, make_object()});
    object->add("array", array);
    const weak_field_ptr walked = array->at(1);
    node::iterator it = array->begin();
    ++it;
    array.reset();
    object.reset();
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_FALSE(walked.expired()) << "an iterator holds the element it stands on";
    it = node::iterator(nullptr);
    EXPECT_TRUE(walked.expired());
}

}  // namespace
