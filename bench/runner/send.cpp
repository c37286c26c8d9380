// Round trips of Send: every server answers the same client.

#include "calls.h"
#include "server-process.h"

namespace {

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
        contenders.reserve(pairs.size());
        for (const Pair& pair : pairs) {
            contenders.push_back({pair.server->Kind().name, [&] {
                                      return CallFor(effort.sample_seconds, *pair.client,
                                                     {pair.server->Process().Pid()}, data);
                                  }});
        }
        results[std::to_string(size)] = RunRounds(contenders, effort.rounds);
    }
    return results;
}
