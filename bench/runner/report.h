/// @file
/// What the results of a run mean: tables, plots, and which targets hold.
#ifndef PELMAR_BENCH_REPORT_H
#define PELMAR_BENCH_REPORT_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "statistics.h"

namespace report {

/// What the channel or the endpoint is to reach, and what it did reach.
struct Target {
    enum class Relation { at_most, at_least, below };

    std::string text;
    Relation relation;
    double limit;
    std::string unit;  // empty for a ratio
    statistics::Estimate value;

    /// What the bare GDBus service reaches, on which the channel cannot improve; 0 where that says
    /// nothing.
    double floor = 0;

    bool Holds() const
    {
        if (relation == Relation::at_least)
            return value.median >= limit;
        return relation == Relation::at_most ? value.median <= limit : value.median < limit;
    }
};

/// Those for which the results have all that it takes: servers that were not built, and workloads
/// that were not run, are left out.
std::vector<Target> Targets(const nlohmann::json& results);

/// One line: what was measured, the limit, and whether it holds.
std::string Verdict(const Target& target);

/// All tables, as Markdown.
std::string Markdown(const nlohmann::json& results);

/// Data files for plots.gnuplot.
void WritePlotData(const nlohmann::json& results, const std::string& folder);

/// What is to be kept of the results, to compare later ones with.
nlohmann::json Baseline(const nlohmann::json& results);

/// One line for each instruction count. `grown` becomes true when one is more than 5 % above the
/// baseline, or is not in it.
std::string CompareWithBaseline(const nlohmann::json& results, const nlohmann::json& baseline,
                                bool& grown);

/// The document with the text between its two marks replaced. Throws std::runtime_error when it
/// has no marks.
std::string ReplaceBetweenMarks(const std::string& document, const std::string& text);

}  // namespace report

#endif
