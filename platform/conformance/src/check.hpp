/*
 * What a check is made of.
 */
#pragma once

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "rova_conformance.hpp"

namespace rova::conformance {

/** The layer did what it must not. */
class violation : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** A text out of parts. */
template <class... part>
std::string words(const part&... parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

/** Ends the check when a condition does not hold. */
template <class... part>
void require(bool condition, const part&... parts)
{
    if (!condition) {
        throw violation(words(parts...));
    }
}

/** One check. It throws a violation, or says what it has seen. */
struct check {
    const char* name;
    const char* sentence;
    bool needs_memory; /**< reads and writes through the device */
    std::string (*run)(const device_layer& layer);
};

std::vector<check> registration_checks();
std::vector<check> export_checks();
std::vector<check> component_checks();

}  // namespace rova::conformance
