// Measures the channel side by side with what else a user would pick, on one private bus daemon,
// everything on one processor. `bench-run --help` lists the workloads; scripts/bench runs them all.

#include <sys/utsname.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>

#include "peers.h"
#include "precedence.h"
#include "processors.h"
#include "server-process.h"
#include "workloads.h"

namespace {

std::string Today()
{
    const std::time_t now = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    return text;
}

std::string ProcessorModel()
{
    std::ifstream info("/proc/cpuinfo");
    std::string line;
    while (std::getline(info, line)) {
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    }
    return "unknown";
}

std::string Kernel()
{
    utsname system{};
    uname(&system);
    return std::string(system.sysname) + " " + system.release + " " + system.machine;
}

double LoadAverage()
{
    double load = 0;
    getloadavg(&load, 1);
    return load;
}

std::string DaemonVersion()
{
    ChildProcess daemon({"dbus-daemon", "--version"});
    return daemon.WaitForLine("D-Bus Message Bus Daemon ");
}

nlohmann::json DescribeMachine(int processor, bool precedence)
{
    return {{"processor", ProcessorModel()},
            {"pinned_to", processor},
            {"precedence", precedence},
            {"processors", sysconf(_SC_NPROCESSORS_ONLN)},
            {"kernel", Kernel()},
            {"libraries", PELMAR_BENCH_LIBRARIES},
            {"dbus_daemon", DaemonVersion()},
            {"load_before", LoadAverage()}};
}

struct Options {
    std::string effort = "full";
    std::vector<std::string> only;
    std::vector<std::string> servers;
    std::vector<std::string> peers;
    std::vector<std::size_t> sizes;
    std::string json = "results.json";
    std::string library;
    std::string parts;
    int processor = -1;
};

Effort EffortOf(const Options& options)
{
    Effort effort = options.effort == "full"    ? FullEffort()
                    : options.effort == "quick" ? QuickEffort()
                                                : SmokeEffort();
    effort.servers = options.servers;
    effort.peers = options.peers;
    if (!options.sizes.empty())
        effort.sizes = effort.request_sizes = effort.counted_sizes = effort.counted_request_sizes =
            options.sizes;
    return effort;
}

bool IsWanted(const Options& options, const std::string& workload)
{
    return options.only.empty() ||
           std::find(options.only.begin(), options.only.end(), workload) != options.only.end();
}

// After each workload, so that a run that is cut short has not been for nothing.
void Save(const Options& options, const nlohmann::json& results)
{
    std::ofstream file(options.json);
    file << results.dump() << "\n";
    if (!file.flush())
        throw std::runtime_error("cannot write '" + options.json + "'");
}

void Run(const Options& options)
{
    // The log is hidden, as in production.
    unsetenv("G_MESSAGES_DEBUG");
    const int processor = PinToOneProcessor(options.processor);
    const bool precedence = options.effort != "smoke" && TakePrecedence();
    nlohmann::json results = {{"date", Today()},
                              {"effort", options.effort},
                              {"machine", DescribeMachine(processor, precedence)}};
    Save(options, results);
    const Effort effort = EffortOf(options);
    for (const Workload& workload : Workloads()) {
        if (!IsWanted(options, workload.name))
            continue;
        std::cerr << workload.name << ": " << workload.description << std::endl;
        BenchBus bus;
        nlohmann::json figures = workload.measure(bus, effort);
        if (!figures.is_null())
            results[workload.name] = std::move(figures);
        Save(options, results);
    }
    if (!options.library.empty())
        results["library_bytes"] = std::filesystem::file_size(options.library);
    if (!options.parts.empty())
        results["parts"] = nlohmann::json::parse(std::ifstream(options.parts)).at("benchmarks");
    results["machine"]["load_after"] = LoadAverage();
    Save(options, results);
}

std::string ListOfWorkloads()
{
    std::string text = "Workloads:";
    for (const Workload& workload : Workloads())
        text += std::string("\n  ") + workload.name + ": " + workload.description;
    return text;
}

int RunCommandLine(int argc, char** argv)
{
    CLI::App app("Measures the channel and its peers side by side, on one processor.");
    Options options;
    std::vector<std::string> workloads;
    for (const Workload& workload : Workloads())
        workloads.emplace_back(workload.name);
    std::vector<std::string> servers;
    for (const ServerKind& kind : ServerKinds())
        servers.push_back(kind.name);
    std::vector<std::string> peers;
    for (const PeerKind& kind : PeersNamed({}))
        peers.push_back(kind.name);
    app.add_option("--effort", options.effort, "how long: full, quick or smoke")
        ->check(CLI::IsMember({"full", "quick", "smoke"}));
    app.add_option("--only", options.only, "these workloads alone, separated by commas")
        ->delimiter(',')
        ->check(CLI::IsMember(workloads));
    app.add_option("--servers", options.servers, "these servers alone, separated by commas")
        ->delimiter(',')
        ->check(CLI::IsMember(servers));
    app.add_option("--peers", options.peers,
                   "these technologies at both ends alone, separated by commas")
        ->delimiter(',')
        ->check(CLI::IsMember(peers));
    app.add_option("--sizes", options.sizes, "these sizes of a message alone, separated by commas")
        ->delimiter(',');
    app.add_option("--json", options.json, "where the results go");
    app.add_option("--library", options.library, "a stripped library, for its size")
        ->check(CLI::ExistingFile);
    app.add_option("--parts", options.parts, "what bench-parts wrote, to go into the results")
        ->check(CLI::ExistingFile);
    app.add_option("--processor", options.processor, "the processor to use; the last one if unset");
    app.footer(ListOfWorkloads());
    CLI11_PARSE(app, argc, argv);
    Run(options);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return RunCommandLine(argc, argv);
    } catch (const std::exception& exception) {
        std::cerr << "bench-run: " << exception.what() << "\n";
        return 1;
    }
}
