#include "table.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <json-c/json.h>

#include "programs.hpp"

namespace bench {
namespace {

constexpr int turns_in_process = 31;
constexpr double seconds_per_side = 0.01;

/** Keeps the CPU time of the last run. */
class time_reporter final : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        m_time = runs.back().GetAdjustedCPUTime();
    }

    double time() const { return m_time; }

private:
    double m_time = 0;
};

double run_once(const side& run)
{
    benchmark::ClearRegisteredBenchmarks();
    // What is registered outlives this call, so it has only a reference.
    const auto call = [&run](benchmark::State& state) { run(state); };
    benchmark::RegisterBenchmark("side", call)->MinTime(seconds_per_side);
    time_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter, "all");
    return reporter.time();
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void print_table(const std::vector<row>& rows)
{
    std::printf("%-46s %-34s %12s %12s %-5s %7s %8s\n", "what", "beside", "ours", "beside", "unit",
                "ratio", "at most");
    for (const row& line : rows) {
        std::printf("%-46s %-34s %12.1f %12.1f %-5s %7.3f ", line.what.c_str(), line.beside.c_str(),
                    line.ours, line.floor, line.unit.c_str(), line.ratio);
        if (line.at_most) {
            std::printf("%8.2f %s\n", *line.at_most, line.met() ? "" : "MISSED");
        } else {
            std::printf("%8s\n", "-");
        }
    }
}

bool write_json(const std::vector<row>& rows, const char* path)
{
    const std::unique_ptr<json_object, decltype(&json_object_put)> array(json_object_new_array(),
                                                                         &json_object_put);
    for (const row& line : rows) {
        json_object* object = json_object_new_object();
        json_object_object_add(object, "what", json_object_new_string(line.what.c_str()));
        json_object_object_add(object, "beside", json_object_new_string(line.beside.c_str()));
        json_object_object_add(object, "unit", json_object_new_string(line.unit.c_str()));
        json_object_object_add(object, "ours", json_object_new_double(line.ours));
        json_object_object_add(object, "floor", json_object_new_double(line.floor));
        json_object_object_add(object, "ratio", json_object_new_double(line.ratio));
        json_object_object_add(object, "at_most",
                               line.at_most ? json_object_new_double(*line.at_most) : nullptr);
        json_object_object_add(object, "met", json_object_new_boolean(line.met() ? 1 : 0));
        json_object_array_add(array.get(), object);
    }
    return json_object_to_file_ext(path, array.get(), JSON_C_TO_STRING_PRETTY) == 0;
}

}  // namespace

void table::compare(const std::string& what, const gauge& ours, const std::string& beside,
                    const gauge& floor, int turns, const std::string& unit,
                    std::optional<double> at_most)
{
    std::vector<double> our_values;
    std::vector<double> floor_values;
    std::vector<double> ratios;
    for (int turn = 0; turn < turns; ++turn) {
        const bool forwards = turn % 2 == 0;
        const double first = forwards ? ours() : floor();
        const double second = forwards ? floor() : ours();
        our_values.push_back(forwards ? first : second);
        floor_values.push_back(forwards ? second : first);
        ratios.push_back(our_values.back() / floor_values.back());
    }
    std::fprintf(stderr, "%s, beside %s\n", what.c_str(), beside.c_str());
    add({what, beside, unit, median(our_values), median(floor_values), median(ratios), at_most});
}

void table::compare(const std::string& what, const side& ours, const std::string& beside,
                    const side& floor, std::optional<double> at_most)
{
    const gauge our_time = [&] { return run_once(ours); };
    const gauge floor_time = [&] { return run_once(floor); };
    compare(what, our_time, beside, floor_time, turns_in_process, "ns", at_most);
}

std::string of_bytes(const std::string& what, size_t length)
{
    return what + ", N = " + std::to_string(length);
}

}  // namespace bench

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s JSON\n  JSON  receives the table\n", argv[0]);
        return EXIT_FAILURE;
    }
    char* arguments[] = {argv[0], nullptr};
    int count = 1;
    benchmark::Initialize(&count, arguments);

    bench::table rows;
    bench::add_rows(rows);
    bench::print_table(rows.rows());
    bench::require(bench::write_json(rows.rows(), argv[1]), "the table was not written");
    return EXIT_SUCCESS;
}
