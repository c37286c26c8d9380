// Notifications from one server to its partners.

#include <algorithm>

#include "receiver.h"
#include "rounds.h"
#include "statistics.h"

namespace {

constexpr std::size_t BYTES = 64;

// So many messages make a sample long enough to time.
constexpr unsigned MESSAGES = 400;

using Receivers = std::vector<std::unique_ptr<Receiver>>;

// From the order to the last receipt; per message.
Sample Broadcast(ServerProcess& server, const Receivers& receivers, unsigned times)
{
    const double processor_started = server.ProcessorSeconds();
    const double started = Now();
    server.Process().WriteLine("notify " + std::to_string(times) + " " + std::to_string(BYTES));
    for (const auto& receiver : receivers)
        receiver->Await(times);
    const double messages = static_cast<double>(times) * static_cast<double>(receivers.size());
    const double seconds = Now() - started;
    return {seconds / messages, (server.ProcessorSeconds() - processor_started) / messages, {}};
}

// One order and one receipt at a time: how long a notification takes when nothing else is on its
// way.
Sample SingleNotifications(ServerProcess& server, const Receivers& receivers, double seconds)
{
    Sample sample;
    const double started = Now();
    const double processor_started = server.ProcessorSeconds();
    do
        sample.calls.push_back(Broadcast(server, receivers, 1).seconds);
    while (Now() - started < seconds);
    sample.seconds = statistics::Median(sample.calls);
    sample.processor_seconds =
        (server.ProcessorSeconds() - processor_started) / static_cast<double>(sample.calls.size());
    return sample;
}

}  // namespace

nlohmann::json MeasureNotifications(BenchBus& /*bus*/, const Effort& effort)
{
    std::vector<std::unique_ptr<ServerProcess>> servers;
    for (const ServerKind& kind : KindsNamed(effort.servers)) {
        if (kind.on_the_bus && kind.options.empty())
            servers.push_back(
                std::make_unique<ServerProcess>(kind, "note" + std::to_string(servers.size())));
    }
    Receivers receivers;
    const auto run = [&](const std::function<Sample(ServerProcess&)>& sample) {
        std::vector<Contender> contenders;
        contenders.reserve(servers.size());
        for (const auto& server : servers)
            contenders.push_back({server->Kind().name, [&] { return sample(*server); }});
        return RunRounds(contenders, effort.rounds);
    };
    nlohmann::json results;
    for (const unsigned count : effort.receivers) {
        while (receivers.size() < count) {
            receivers.push_back(std::make_unique<Receiver>());
            for (const auto& server : servers)
                receivers.back()->Join(*server);
        }
        const unsigned times = std::max(1U, MESSAGES / count);
        results["broadcast"][std::to_string(count)] =
            run([&](ServerProcess& server) { return Broadcast(server, receivers, times); });
        if (count == 1)
            results["single"] = run([&](ServerProcess& server) {
                return SingleNotifications(server, receivers, effort.sample_seconds);
            });
    }
    return results;
}
