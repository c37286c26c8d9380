// Instructions that a server executes for one Send, counted by callgrind: what is left when two
// runs that differ in the number of calls alone are subtracted.

#include <signal.h>

#include <fstream>

#include "server-process.h"
#include "workloads.h"

namespace {

// Before the first count: caches, look-ups and buffers that are made once.
constexpr unsigned WARM_UP_CALLS = 50;

double InstructionsOfRun(const std::string& folder, const ServerKind& kind, std::size_t size,
                         unsigned calls)
{
    const std::string log = folder + "/callgrind.log";
    {
        ServerProcess server(kind, "count",
                             {"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                              "--log-file=" + log});
        const auto client = server.NewClient();
        const EchoClient::Bytes data(size, 's');
        for (unsigned i = 0; i < calls; ++i)
            client->Call(data);
        server.Process().Signal(SIGTERM);
        server.Process().WaitForEnd();
    }
    std::ifstream lines(log);
    std::string line;
    const std::string mark = "Collected : ";
    while (std::getline(lines, line)) {
        const std::size_t found = line.find(mark);
        if (found != std::string::npos)
            return std::stod(line.substr(found + mark.size()));
    }
    throw std::runtime_error("callgrind gave no count for " + kind.name +
                             ": is valgrind installed?");
}

}  // namespace

nlohmann::json CountInstructions(BenchBus& bus, const Effort& effort)
{
    nlohmann::json results;
    for (const ServerKind& kind : KindsNamed(effort.servers)) {
        if (!kind.on_the_bus)
            continue;
        for (const std::size_t size : effort.counted_sizes) {
            const double few = InstructionsOfRun(bus.Folder(), kind, size, WARM_UP_CALLS);
            const double many =
                InstructionsOfRun(bus.Folder(), kind, size, WARM_UP_CALLS + effort.counted_calls);
            results[kind.name][std::to_string(size)] =
                static_cast<long>((many - few) / effort.counted_calls);
        }
    }
    return results;
}
