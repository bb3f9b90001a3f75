/*
 * A table of ratios: the cost of the library compared with that of what it is built on.
 *
 * A subject is a source bench_SUBJECT.cpp that defines add_rows(). The two sides of a row run in
 * turns, and each turn has a ratio of its own, so that a slow moment of the machine affects both.
 * Every other turn goes backwards, so that neither side always comes first.
 * The table has the medians over the turns. malloc keeps its default settings.
 */
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

/**
 * One line of the table. `ours` is the library's cost, `floor` the cost that it is compared with.
 */
struct row {
    std::string what;
    std::string beside;
    std::string unit;
    double ours;
    double floor;
    double ratio;
    std::optional<double> at_most;  // if empty, the row only informs

    bool met() const { return !at_most || ratio <= *at_most; }
};

/** Runs the measured loop over the state that it gets. */
using side = std::function<void(benchmark::State&)>;

/** A side that repeats one operation. */
template <typename step_function>
side repeat(step_function step)
{
    return [step](benchmark::State& state) {
        for ([[maybe_unused]] const auto _ : state) {
            benchmark::DoNotOptimize(step());
        }
    };
}

/** Measures something once and returns the number. */
using gauge = std::function<double()>;

class table {
public:
    /** Compares the CPU times of two sides, in loops of this process. */
    void compare(const std::string& what, const side& ours, const std::string& beside,
                 const side& floor, std::optional<double> at_most);

    /** Compares two numbers that are measured in another way, in this many turns. */
    void compare(const std::string& what, const gauge& ours, const std::string& beside,
                 const gauge& floor, int turns, const std::string& unit,
                 std::optional<double> at_most);

    /** Adds a line that needs no turns. */
    void add(const row& line) { m_rows.push_back(line); }

    const std::vector<row>& rows() const { return m_rows; }

private:
    std::vector<row> m_rows;
};

/** "WHAT, N = LENGTH" */
std::string of_bytes(const std::string& what, size_t length);

/** Adds the rows; each subject defines this. */
void add_rows(table& rows);

}  // namespace bench
