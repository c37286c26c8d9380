// Makes tables, plots' data and verdicts out of what bench-run has measured. See --help.

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <sstream>

#include "report.h"

namespace {

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf()))
        throw std::runtime_error("cannot read '" + path + "'");
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    if (!(file << text))
        throw std::runtime_error("cannot write '" + path + "'");
}

nlohmann::json ReadJson(const std::string& path)
{
    try {
        return nlohmann::json::parse(ReadFile(path));
    } catch (const nlohmann::json::exception& exception) {
        throw std::runtime_error("'" + path + "' is no JSON: " + exception.what());
    }
}

struct Options {
    std::string results;
    std::string markdown;
    std::string document;
    std::string plots;
    std::string baseline;
    std::string new_baseline;
};

// False when something has grown beyond its baseline.
bool Run(const Options& options)
{
    const nlohmann::json results = ReadJson(options.results);
    if (!options.markdown.empty())
        WriteFile(options.markdown, report::Markdown(results));
    if (!options.document.empty())
        WriteFile(options.document, report::ReplaceBetweenMarks(ReadFile(options.document),
                                                                report::Markdown(results)));
    if (!options.plots.empty())
        report::WritePlotData(results, options.plots);
    if (!options.new_baseline.empty())
        WriteFile(options.new_baseline, report::Baseline(results).dump(2) + "\n");
    bool grown = false;
    if (!options.baseline.empty()) {
        std::cout << report::CompareWithBaseline(results, ReadJson(options.baseline), grown);
        return !grown;
    }
    for (const report::Target& target : report::Targets(results))
        std::cout << report::Verdict(target) << "\n";
    return true;
}

int RunCommandLine(int argc, char** argv)
{
    CLI::App app("Says what the results of bench-run mean, and which targets hold.");
    Options options;
    app.add_option("results", options.results, "the JSON file that bench-run wrote")->required();
    app.add_option("--markdown", options.markdown, "write all tables to this file");
    app.add_option("--document", options.document, "put all tables between this file's marks");
    app.add_option("--plots", options.plots, "write the plots' data to this folder");
    app.add_option("--check", options.baseline,
                   "compare the instruction counts with this file's; status 3 when one has grown "
                   "by more than 5 %");
    app.add_option("--write-baseline", options.new_baseline, "write such a file");
    CLI11_PARSE(app, argc, argv);
    return Run(options) ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return RunCommandLine(argc, argv);
    } catch (const std::exception& exception) {
        std::cerr << "bench-report: " << exception.what() << "\n";
        return 1;
    }
}
