#include "rova_conformance.hpp"

#include <array>
#include <ostream>
#include <stdexcept>

#include "check.hpp"
#include "isolation.hpp"

namespace rova::conformance {

namespace {

std::vector<check> all_checks()
{
    std::vector<check> all = registration_checks();
    for (const auto& more : {export_checks(), component_checks()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

result run_one(const check& which, const device_layer& layer, const options& how)
{
    if (which.needs_memory && (!layer.read || !layer.write)) {
        return {which.name, which.sentence, outcome::skipped,
                "there is no way to read and write memory through the device"};
    }
    const verdict verdict =
        how.in_child ? run_in_child(which, layer, how.timeout_s) : run_here(which, layer);
    return {which.name, which.sentence, verdict.passed ? outcome::passed : outcome::failed,
            verdict.seen};
}

const char* name_of(outcome verdict)
{
    switch (verdict) {
        case outcome::passed:
            return "passed ";
        case outcome::failed:
            return "FAILED ";
        case outcome::skipped:
            return "skipped";
    }
    return "";
}

}  // namespace

std::vector<result> run(const device_layer& layer, const options& how)
{
    if (!layer.open || !layer.close) {
        throw std::invalid_argument("say how a device is opened and closed");
    }
    std::vector<result> results;
    for (const check& each : all_checks()) {
        if (how.only.empty() || how.only == each.name) {
            results.push_back(run_one(each, layer, how));
        }
    }
    if (results.empty()) {
        throw std::invalid_argument("there is no check of the name " + how.only);
    }
    return results;
}

size_t report(const std::vector<result>& results, std::ostream& out)
{
    std::array<size_t, 3> counts = {};
    for (const result& each : results) {
        ++counts.at(static_cast<size_t>(each.verdict));
        out << name_of(each.verdict) << ' ' << each.name << ": " << each.seen << '\n';
        if (each.verdict == outcome::failed) {
            out << "        " << each.sentence << '\n';
        }
    }
    const auto count = [&](outcome verdict) { return counts.at(static_cast<size_t>(verdict)); };
    out << count(outcome::passed) << " passed, " << count(outcome::failed) << " failed, "
        << count(outcome::skipped) << " skipped\n";
    return count(outcome::failed);
}

}  // namespace rova::conformance
