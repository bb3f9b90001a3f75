/*
 * The parts that checks are built from.
 */
#pragma once

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "rova_conformance.hpp"

namespace rova::conformance {

/** The layer broke a rule. */
class violation : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** The layer does not offer what the check needs. */
class not_applicable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

template <typename... part_t>
std::string concat(const part_t&... parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

/** Ends the check when a condition does not hold. */
template <typename... part_t>
void require(bool condition, const part_t&... parts)
{
    if (!condition) {
        throw violation(concat(parts...));
    }
}

/** What a check has found. */
struct finding {
    outcome ended;
    std::string seen;
};

/** One check. It throws a violation or not_applicable, or returns what it has seen. */
struct check {
    const char* name;
    const char* sentence;
    std::vector<const char*> builds_on; /**< earlier checks, without which this one says nothing */
    std::string (*run)(const device_layer& layer);
};

/** If this check does not pass, the others do not look for lost memory. */
inline constexpr const char* leak_check_name = "no_memory_was_lost_before";

std::vector<check> service_checks();
std::vector<check> registration_checks();
std::vector<check> memory_checks();
std::vector<check> export_checks();
std::vector<check> sharing_checks();
std::vector<check> component_checks();

}  // namespace rova::conformance
