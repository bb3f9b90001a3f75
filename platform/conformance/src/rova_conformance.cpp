#include "rova_conformance.hpp"

#include <array>
#include <map>
#include <ostream>
#include <stdexcept>

#include "check.hpp"
#include "isolation.hpp"

namespace rova::conformance {

namespace {

std::vector<check> all_checks()
{
    std::vector<check> all;
    for (const auto& more : {service_checks(), registration_checks(), memory_checks(),
                             export_checks(), sharing_checks(), component_checks()})
    {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

/** The names of the checks that did not pass, each with the failed check that caused it. */
using causes = std::map<std::string, std::string>;

finding run_one(const check& which, const device_layer& layer, const options& how, causes& failed)
{
    for (const char* const base : which.builds_on) {
        const auto found = failed.find(base);
        if (found != failed.end()) {
            const std::string cause = found->second;
            failed[which.name] = cause;
            return {outcome::blocked, "not run, since " + cause + " has failed"};
        }
    }
    const bool look_for_leaks = failed.count(leak_check_name) == 0;
    finding found = how.in_child ? run_in_child(which, layer, how.timeout_s, look_for_leaks)
                                 : run_here(which, layer);
    if (found.ended == outcome::failed) {
        failed[which.name] = which.name;
    }
    return found;
}

const char* name_of(outcome ended)
{
    switch (ended) {
        case outcome::passed:
            return "passed ";
        case outcome::failed:
            return "FAILED ";
        case outcome::blocked:
            return "blocked";
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
    causes failed;
    for (const check& each : all_checks()) {
        if (how.only.empty() || how.only == each.name) {
            const finding found = run_one(each, layer, how, failed);
            results.push_back({each.name, each.sentence, found.ended, found.seen});
        }
    }
    if (results.empty()) {
        throw std::invalid_argument("there is no check of the name " + how.only);
    }
    return results;
}

size_t report(const std::vector<result>& results, std::ostream& out)
{
    std::array<size_t, 4> counts = {};
    std::string first_failed;
    for (const result& each : results) {
        ++counts.at(static_cast<size_t>(each.ended));
        out << name_of(each.ended) << ' ' << each.name << ": " << each.seen << '\n';
        if (each.ended == outcome::failed) {
            out << "        " << each.sentence << '\n';
            first_failed = first_failed.empty() ? each.name : first_failed;
        }
    }
    const auto count = [&](outcome ended) { return counts.at(static_cast<size_t>(ended)); };
    out << count(outcome::passed) << " passed, " << count(outcome::failed) << " failed, "
        << count(outcome::blocked) << " blocked, " << count(outcome::skipped) << " skipped";
    out << (first_failed.empty() ? "" : "; look at " + first_failed + " first") << '\n';
    return count(outcome::failed);
}

}  // namespace rova::conformance
