// What a partner costs when there are many: each is a process with a channel, and every one of them
// sees every pulse of the service's names.

#include <numeric>

#include "handshakes.h"
#include "names.h"
#include "receiver.h"
#include "statistics.h"
#include "workloads.h"

namespace {

class Crowd {
public:
    explicit Crowd(const std::string& kind)
        : m_service(KindNamed(kind), "crowd_" + kind), m_client(ClientOf(kind)), m_bus(OpenBus())
    {
    }

    void GrowTo(std::size_t count)
    {
        while (m_clients.size() < count) {
            m_clients.push_back(std::make_unique<ServerProcess>(m_client, m_service.Channel()));
            m_clients.back()->WaitForReady();
            m_service.WaitForReady();
        }
        Settle();
    }

    // Milliseconds.
    double NextHandshake(unsigned times)
    {
        std::vector<double> seconds;
        for (unsigned i = 0; i < times; ++i)
            seconds.push_back(HandshakeWith(m_service, m_client));
        return statistics::Median(seconds) * 1000;
    }

    double ServiceBytes() { return PrivateBytes(m_service.Process().Pid()); }

    struct PulseCost {
        double clients_us;  // all clients together
        double daemon_us;
    };

    // The processor time that one pulse of a name of the service's costs. A stranger pulses: the
    // clients see it, look, and do nothing.
    PulseCost CostOfPulse(unsigned pulses, pid_t daemon)
    {
        const std::string name = names::Own(m_service.Channel(), names::ACK);
        Settle();
        const double clients_started = ClientSeconds();
        const double daemon_started = ProcessorSeconds(daemon);
        Settle();
        const double clients_settled = ClientSeconds();
        const double daemon_settled = ProcessorSeconds(daemon);
        for (unsigned i = 0; i < pulses; ++i)
            Pulse(m_bus.get(), name);
        Settle();
        const auto per_pulse = [pulses](double started, double settled, double ended) {
            return ((ended - settled) - (settled - started)) / pulses * 1e6;
        };
        return {per_pulse(clients_started, clients_settled, ClientSeconds()),
                per_pulse(daemon_started, daemon_settled, ProcessorSeconds(daemon))};
    }

private:
    // Their main loops answer, so they have dealt with all that the bus sent them before.
    void Settle()
    {
        for (const auto& client : m_clients) {
            sd_bus_error error{};
            const int result = sd_bus_call_method(m_bus.get(), client->Name().c_str(),
                                                  names::Path(m_service.Channel()).c_str(),
                                                  "org.freedesktop.DBus.Properties", "GetAll",
                                                  &error, nullptr, "s", names::INTERFACE.c_str());
            sd_bus_error_free(&error);
            Checked(result, "waiting for " + client->Name());
        }
    }

    double ClientSeconds() const
    {
        return std::accumulate(
            m_clients.begin(), m_clients.end(), 0.0,
            [](double sum, const auto& client) { return sum + client->ProcessorSeconds(); });
    }

    ServerProcess m_service;
    ServerKind m_client;
    BusPtr m_bus;
    std::vector<std::unique_ptr<ServerProcess>> m_clients;
};

}  // namespace

nlohmann::json MeasureGrowth(BenchBus& bus, const Effort& effort)
{
    nlohmann::json results;
    for (const std::string kind : {"channel", "endpoint"}) {
        Crowd crowd(kind);
        for (const unsigned count : effort.growth) {
            crowd.GrowTo(count);
            const Crowd::PulseCost cost = crowd.CostOfPulse(effort.pulses, bus.Daemon().Pid());
            results[kind][std::to_string(count)] = {
                {"next_handshake_ms", crowd.NextHandshake(effort.handshakes)},
                {"service_bytes", crowd.ServiceBytes()},
                {"daemon_bytes", PrivateBytes(bus.Daemon().Pid())},
                {"pulse_us", cost.clients_us + cost.daemon_us},
                {"pulse_us_per_client", cost.clients_us / count},
                {"pulse_us_of_daemon", cost.daemon_us},
            };
        }
    }
    return results;
}
