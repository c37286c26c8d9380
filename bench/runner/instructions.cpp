// Instructions that a process executes for one call, counted by callgrind: what is left when two
// runs that differ in the number of calls alone are subtracted.

#include <signal.h>

#include <algorithm>
#include <fstream>

#include "peers.h"
#include "server-process.h"
#include "workloads.h"

namespace {

// Before the first count: caches, look-ups and buffers that are made once.
constexpr unsigned WARM_UP_CALLS = 50;

std::vector<std::string> Callgrind(const std::string& log)
{
    return {"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--log-file=" + log};
}

// Ends the process, which then says how many it were.
double InstructionsOf(ChildProcess& process, const std::string& log)
{
    process.Signal(SIGTERM);
    process.WaitForEnd();
    std::ifstream lines(log);
    std::string line;
    const std::string mark = "Collected : ";
    while (std::getline(lines, line)) {
        const std::size_t found = line.find(mark);
        if (found != std::string::npos)
            return std::stod(line.substr(found + mark.size()));
    }
    throw std::runtime_error("callgrind gave no count: is valgrind installed?");
}

// Large messages vary less, and take long under callgrind.
unsigned CallsOf(std::size_t size, unsigned calls)
{
    constexpr std::size_t LARGE = 256UL * 1024;
    return size < LARGE ? calls : std::max(1U, calls / 10);
}

// `run` makes so many calls after those that warm it up, and gives all that were executed.
template <typename Run>
long InstructionsPerCall(Run run, unsigned calls)
{
    const double few = run(WARM_UP_CALLS);
    return static_cast<long>((run(WARM_UP_CALLS + calls) - few) / calls);
}

double RunServer(const std::string& log, const ServerKind& kind, std::size_t size, unsigned calls)
{
    ServerProcess server(kind, "count", Callgrind(log));
    const auto client = server.NewClient();
    const EchoClient::Bytes data(size, 's');
    for (unsigned i = 0; i < calls; ++i)
        client->Call(data);
    return InstructionsOf(server.Process(), log);
}

// One end is counted, the other one runs as it is.
double RunPair(const std::string& log, const std::string& counted, std::size_t size, unsigned calls)
{
    const auto start = [&](const std::string& role) {
        return PeerProcess(EndpointPeer(), role, "count",
                           role == counted ? Callgrind(log) : std::vector<std::string>());
    };
    PeerProcess server = start("server");
    PeerProcess client = start("client");
    Request(client, size, calls);
    return InstructionsOf(counted == "server" ? server : client, log);
}

}  // namespace

nlohmann::json CountInstructions(BenchBus& bus, const Effort& effort)
{
    const std::string log = bus.Folder() + "/callgrind.log";
    nlohmann::json results;
    for (const ServerKind& kind : KindsNamed(effort.servers)) {
        if (!kind.on_the_bus)
            continue;
        for (const std::size_t size : effort.counted_sizes) {
            const auto run = [&](unsigned calls) { return RunServer(log, kind, size, calls); };
            results[kind.name][std::to_string(size)] =
                InstructionsPerCall(run, effort.counted_calls);
        }
    }
    return results;
}

nlohmann::json CountRequestInstructions(BenchBus& bus, const Effort& effort)
{
    const std::string log = bus.Folder() + "/callgrind.log";
    nlohmann::json results;
    for (const std::string counted : {"server", "client"}) {
        for (const std::size_t size : effort.counted_request_sizes) {
            const auto run = [&](unsigned calls) { return RunPair(log, counted, size, calls); };
            results[counted][std::to_string(size)] =
                InstructionsPerCall(run, CallsOf(size, effort.counted_calls));
        }
    }
    return results;
}
