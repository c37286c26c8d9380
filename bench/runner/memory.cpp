// The memory of a server that does nothing.

#include "server-process.h"
#include "workloads.h"

nlohmann::json MeasureMemory(BenchBus& /*bus*/, const Effort& effort)
{
    nlohmann::json results;
    for (const ServerKind& kind : KindsNamed(effort.servers)) {
        if (!kind.on_the_bus || !kind.options.empty())
            continue;
        ServerProcess server(kind, "idle");
        results[kind.name] = PrivateBytes(server.Process().Pid());
    }
    return results;
}
