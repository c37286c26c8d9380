// What a server does for one Send, as figures that do not depend on the machine's speed: system
// calls by strace, and large blocks copied and filled, as count-copies sees them. Each is what is
// left when two runs that differ in the number of calls alone are subtracted.

#include <fstream>
#include <sstream>

#include "server-process.h"
#include "workloads.h"

namespace {

// Before the first count: caches, look-ups and buffers that are made once.
constexpr unsigned WARM_UP_CALLS = 20;

struct Totals {
    double system_calls = 0;
    double copied = 0;
    double filled = 0;
};

// Of the last line: the shares, the seconds, the microseconds a call, the calls.
double SystemCallsIn(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        double share = 0;
        double seconds = 0;
        double per_call = 0;
        double calls = 0;
        if (line.find(" total") != std::string::npos &&
            words >> share >> seconds >> per_call >> calls)
            return calls;
    }
    throw std::runtime_error("strace gave no total");
}

void Call(const ServerKind& kind, const std::vector<std::string>& inspector, std::size_t size,
          unsigned calls)
{
    // What it says at its end is no part of the report.
    std::vector<std::string> wrapper = {"sh", "-c", "exec \"$@\" 2>&1", "sh"};
    wrapper.insert(wrapper.end(), inspector.begin(), inspector.end());
    ServerProcess server(kind, "profile", wrapper);
    const auto client = server.NewClient();
    const EchoClient::Bytes data(size, 's');
    for (unsigned i = 0; i < calls; ++i)
        client->Call(data);
    server.Process().CloseInput();
    if (const int status = server.Process().WaitForEnd())
        throw std::runtime_error(kind.name + " ended with " + std::to_string(status));
}

Totals TotalsOf(const std::string& folder, const ServerKind& kind, std::size_t size, unsigned calls)
{
    const std::string counts = folder + "/counts";
    Call(kind, {"strace", "-f", "-c", "-o", counts}, size, calls);
    Totals totals;
    totals.system_calls = SystemCallsIn(counts);
    const std::string preload = std::string("LD_PRELOAD=") + PELMAR_COUNT_COPIES;
    Call(kind, {"env", preload, "PELMAR_COUNT_COPIES=" + counts}, size, calls);
    if (!(std::ifstream(counts) >> totals.copied >> totals.filled))
        throw std::runtime_error("no copies were counted");
    return totals;
}

nlohmann::json ProfileOf(const std::string& folder, const ServerKind& kind, std::size_t size,
                         unsigned calls)
{
    const Totals few = TotalsOf(folder, kind, size, WARM_UP_CALLS);
    const Totals many = TotalsOf(folder, kind, size, WARM_UP_CALLS + calls);
    return {{"system_calls", (many.system_calls - few.system_calls) / calls},
            {"copied_bytes", (many.copied - few.copied) / calls},
            {"filled_bytes", (many.filled - few.filled) / calls}};
}

}  // namespace

nlohmann::json MeasureProfile(BenchBus& bus, const Effort& effort)
{
    nlohmann::json results;
    for (const std::size_t size : effort.sizes) {
        for (const ServerKind& kind : KindsNamed(effort.servers)) {
            if (kind.on_the_bus)
                results[std::to_string(size)][kind.name] =
                    ProfileOf(bus.Folder(), kind, size, effort.profiled_calls);
        }
    }
    return results;
}
