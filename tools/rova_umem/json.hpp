/*
 * JSON for programs that read what this one prints.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <json-c/json.h>

namespace tool {

struct json_deleter {
    void operator()(json_object* value) const noexcept { json_object_put(value); }
};
using json_ptr = std::unique_ptr<json_object, json_deleter>;

/** All throw std::bad_alloc. */
json_ptr json_new_object();
json_ptr json_new_array();

json_ptr json_number(uint64_t number);

/** Adds a member; null where there is no value. Throws std::bad_alloc. */
void json_add(const json_ptr& object, const char* key, json_ptr value);
void json_add(const json_ptr& object, const char* key, const std::string& text);
void json_add(const json_ptr& object, const char* key, const char* text);
void json_add(const json_ptr& object, const char* key, uint64_t number);
void json_add(const json_ptr& object, const char* key, bool value);

/** Appends to an array. */
void json_append(const json_ptr& array, json_ptr value);
json_ptr json_array_of(const std::vector<std::string>& texts);

/** A copy that can be changed. */
json_ptr json_copy(json_object* value);

/**
 * Gives the value as text in plain ASCII that every JSON parser reads, with a newline at its end:
 * on one line, or laid out for people. Numbers that JSON does not have, which json-c reads, become
 * null.
 */
std::string json_line(const json_ptr& value);
std::string json_pretty(const json_ptr& value);

}  // namespace tool
