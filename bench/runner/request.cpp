// Round trips of Request: client and server speak the same technology.

#include <algorithm>
#include <filesystem>

#include "peers.h"
#include "processors.h"
#include "server-process.h"

namespace {

using Pairs = std::vector<std::unique_ptr<PeerPair>>;

constexpr std::size_t SMALL = 64;

nlohmann::json MeasureSizes(BenchBus& bus, const Effort& effort,
                            std::optional<int> processor_of_clients)
{
    Pairs pairs;
    for (const PeerKind& kind : PeersNamed(effort.peers))
        pairs.push_back(std::make_unique<PeerPair>(
            bus, kind, "request" + std::to_string(pairs.size()), processor_of_clients));
    nlohmann::json results;
    for (const std::size_t size : effort.request_sizes)
        results[std::to_string(size)] = RunRequests(pairs, size, effort);
    return results;
}

double OpenDescriptors(pid_t process)
{
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(process) + "/fd");
    return static_cast<double>(std::distance(begin(entries), end(entries)));
}

}  // namespace

nlohmann::json MeasureRequest(BenchBus& bus, const Effort& effort)
{
    return MeasureSizes(bus, effort, std::nullopt);
}

// Servers and the daemon stay where this process is.
nlohmann::json MeasureRequestOnTwo(BenchBus& bus, const Effort& effort)
{
    const std::optional<int> another = AnotherProcessor();
    return another ? MeasureSizes(bus, effort, another) : nullptr;
}

nlohmann::json MeasureHandlers(BenchBus& bus, const Effort& effort)
{
    const std::vector<std::pair<std::string, std::string>> places = {
        {"the endpoint's own thread", ""},
        {"the application's GMainContext", "context"},
        {"an executor of the application's", "executor"},
    };
    Pairs pairs;
    for (const auto& [place, option] : places) {
        PeerKind kind = EndpointPeer(option);
        kind.name = place;
        pairs.push_back(
            std::make_unique<PeerPair>(bus, kind, "handlers" + std::to_string(pairs.size())));
    }
    return RunRequests(pairs, SMALL, effort);
}

// The idle ones are in as few processes as have room for their threads.
nlohmann::json MeasureIdlePartners(BenchBus& bus, const Effort& effort)
{
    constexpr unsigned in_one_process = 100;
    Pairs pairs;
    for (const std::string name : {"crowded", "alone"}) {
        PeerKind kind = EndpointPeer();
        kind.name = name;
        pairs.push_back(std::make_unique<PeerPair>(bus, kind, name));
    }
    for (const auto& pair : pairs)
        pair->RequestFor(effort.sample_seconds, SMALL);  // whatever it takes for itself, it has
    const pid_t server = pairs.front()->Server().Pid();
    const double bytes = PrivateBytes(server);
    const double descriptors = OpenDescriptors(server);

    std::vector<std::unique_ptr<PeerProcess>> crowd;
    for (unsigned count = 0; count < effort.idle_partners; count += in_one_process) {
        const unsigned here = std::min(in_one_process, effort.idle_partners - count);
        crowd.push_back(
            std::make_unique<PeerProcess>(EndpointPeer(std::to_string(here)), "crowd", "crowded"));
    }
    return {{"partners", effort.idle_partners},
            {"request", RunRequests(pairs, SMALL, effort)},
            {"bytes_each", (PrivateBytes(server) - bytes) / effort.idle_partners},
            {"descriptors_each", (OpenDescriptors(server) - descriptors) / effort.idle_partners}};
}
