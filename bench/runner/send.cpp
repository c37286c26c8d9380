// Round trips of Send: every server answers the same client.

#include "rounds.h"
#include "server-process.h"
#include "statistics.h"

namespace {

constexpr unsigned LEAST_CALLS = 3;

Sample CallFor(double seconds, EchoClient& client, ServerProcess& server,
               const EchoClient::Bytes& data)
{
    Sample sample;
    const pid_t process = server.Process().Pid();
    const double waits = Waits(process);
    const double page_faults = PageFaults(process);
    const double processor_started = server.ProcessorSeconds();
    const double started = Now();
    for (double before = started;
         before - started < seconds || sample.calls.size() < LEAST_CALLS;) {
        client.Call(data);
        const double after = Now();
        sample.calls.push_back(after - before);
        before = after;
    }
    sample.seconds = statistics::Median(sample.calls);
    const auto count = static_cast<double>(sample.calls.size());
    sample.processor_seconds = (server.ProcessorSeconds() - processor_started) / count;
    sample.waits = (Waits(process) - waits) / count;
    sample.page_faults = (PageFaults(process) - page_faults) / count;
    return sample;
}

struct Pair {
    std::unique_ptr<ServerProcess> server;
    std::unique_ptr<EchoClient> client;
};

}  // namespace

nlohmann::json MeasureSend(BenchBus& bus, const Effort& effort)
{
    std::vector<Pair> pairs;
    for (const ServerKind& kind : KindsNamed(effort.servers)) {
        const std::string channel = "send" + std::to_string(pairs.size());
        auto server = std::make_unique<ServerProcess>(
            kind, kind.on_the_bus ? channel : bus.Folder() + "/" + channel);
        auto client = server->NewClient();
        pairs.push_back({std::move(server), std::move(client)});
    }
    nlohmann::json results;
    for (const std::size_t size : effort.sizes) {
        const EchoClient::Bytes data(size, 's');
        std::vector<Contender> contenders;
        for (const Pair& pair : pairs) {
            contenders.push_back(
                {pair.server->Kind().name,
                 [&] { return CallFor(effort.sample_seconds, *pair.client, *pair.server, data); }});
        }
        results[std::to_string(size)] = RunRounds(contenders, effort.rounds);
    }
    return results;
}
