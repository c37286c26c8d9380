// From the constructor of the side that comes second to ready at both ends.

#include <algorithm>

#include "handshakes.h"
#include "workloads.h"

double HandshakeWith(ServerProcess& resident, const ServerKind& newcomer_kind)
{
    ServerProcess newcomer(newcomer_kind, resident.Channel());
    const double ready = std::max(newcomer.WaitForReady(), resident.WaitForReady());
    newcomer.Process().Kill();
    resident.WaitForLost();
    return ready - newcomer.Constructing();
}

ServerKind ClientOf(const std::string& server)
{
    ServerKind kind = KindNamed(server);
    if (server == "channel")
        kind.program = "serve-channel-client";
    else
        kind.options = {"client"};
    return kind;
}

nlohmann::json MeasureHandshake(BenchBus& /*bus*/, const Effort& effort)
{
    struct Case {
        std::string name;
        ServerKind resident;
        ServerKind newcomer;
    };
    std::vector<Case> cases;
    for (const std::string server : {"channel", "endpoint"}) {
        cases.push_back({server + ", the client comes", KindNamed(server), ClientOf(server)});
        cases.push_back({server + ", the service comes", ClientOf(server), KindNamed(server)});
    }
    std::vector<std::unique_ptr<ServerProcess>> residents;
    residents.reserve(cases.size());
    for (const Case& measured : cases) {
        residents.push_back(std::make_unique<ServerProcess>(
            measured.resident, "hand" + std::to_string(residents.size())));
    }
    nlohmann::json results;
    for (unsigned round = 0; round < effort.handshakes; ++round) {
        for (std::size_t i = 0; i < cases.size(); ++i)
            results[cases[i].name].push_back(HandshakeWith(*residents[i], cases[i].newcomer) *
                                             1000);
    }
    return results;
}
