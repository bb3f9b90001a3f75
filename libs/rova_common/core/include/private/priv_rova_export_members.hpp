/*
 * What an object of the field tree holds: nodes under keys.
 *
 * A std::map alone would serve, but it calls functions of the C++ library, and most processes write
 * or read a single descriptor, whose objects have few members. There the page fault for the first
 * of these calls takes longer than everything else that is done with the members.
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace core {

class export_field;

/**
 * Members in ascending byte-wise order of their keys, which are unique. The first few are kept in a
 * sorted vector; when there are more, all move to a map.
 */
class export_members {
public:
    using node_ptr = std::shared_ptr<export_field>;

    /** Calls a function with each key and node, in order. */
    template <typename function_t>
    void for_each(const function_t& function) const
    {
        for (const auto& [key, node] : few) {
            function(key, node);
        }
        for (const auto& [key, node] : many) {
            function(key, node);
        }
    }

    /** The node under a key; null if there is none. */
    node_ptr* find(const std::string& key)
    {
        if (!many.empty()) {
            const auto found = many.find(key);
            return found != many.end() ? &found->second : nullptr;
        }
        const auto found = first_not_below(key);
        return found != few.end() && found->first == key ? &found->second : nullptr;
    }

    /** As find, but adds a member without a node if there is none. If it throws, none is added. */
    node_ptr& operator[](const std::string& key)
    {
        if (node_ptr* const found = find(key)) {
            return *found;
        }
        if (few.size() == most_in_few) {
            many = std::map<std::string, node_ptr>(few.begin(), few.end());
            few.clear();
        }
        if (!many.empty()) {
            return many[key];
        }
        few.reserve(most_in_few);
        return few.insert(first_not_below(key), {key, nullptr})->second;
    }

    /** Replaces a node in the first member that holds it. Returns false if none does. */
    bool replace(const node_ptr& old, const node_ptr& node)
    {
        return replace_in(few, old, node) || replace_in(many, old, node);
    }

    /** Removes the first member that holds a node. Returns its key, or "" if none does. */
    std::string remove(const node_ptr& node)
    {
        const auto in_few = holder(few, node);
        if (in_few != few.end()) {
            std::string key = std::move(in_few->first);
            few.erase(in_few);
            return key;
        }
        const auto in_many = holder(many, node);
        if (in_many != many.end()) {
            return std::move(many.extract(in_many).key());
        }
        return {};
    }

private:
    static constexpr size_t most_in_few = 8;

    std::vector<std::pair<std::string, node_ptr>>::iterator first_not_below(const std::string& key)
    {
        return std::partition_point(few.begin(), few.end(),
                                    [&key](const auto& each) { return each.first < key; });
    }

    template <typename container_t>
    static typename container_t::iterator holder(container_t& in, const node_ptr& node)
    {
        return std::find_if(in.begin(), in.end(),
                            [&node](const auto& each) { return each.second == node; });
    }

    template <typename container_t>
    static bool replace_in(container_t& in, const node_ptr& old, const node_ptr& node)
    {
        const auto found = holder(in, old);
        if (found == in.end()) {
            return false;
        }
        found->second = node;
        return true;
    }

    // At most one of these two has members.
    std::vector<std::pair<std::string, node_ptr>> few;
    std::map<std::string, node_ptr> many;
};

}  // namespace core
