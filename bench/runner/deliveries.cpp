// Notifications from one publisher to many receivers, each in a process of its own: how many a
// second arrive.

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "peers.h"
#include "server-process.h"

namespace {

constexpr std::size_t BYTES = 64;

// By the daemon everything takes longer.
constexpr unsigned FEWER_ON_THE_BUS = 5;

bool CanPublish(const PeerKind& kind)
{
    return kind.program != "peer-socket" && kind.program != "peer-nng";
}

bool IsByTheDaemon(const PeerKind& kind)
{
    return kind.on_the_bus && kind.name != "endpoint";
}

class Publication {
public:
    Publication(const BenchBus& bus, PeerKind kind, const std::string& name)
        : m_kind(std::move(kind)),
          m_address(AddressOf(bus, m_kind, name)),
          m_publisher(m_kind, "publisher", m_address)
    {
    }

    const PeerKind& Kind() const { return m_kind; }

    void GrowTo(std::size_t receivers)
    {
        while (m_receivers.size() < receivers)
            m_receivers.push_back(std::make_unique<PeerProcess>(m_kind, "receiver", m_address));
    }

    // From the order to the last receipt; per delivery.
    Sample Deliver(unsigned times)
    {
        const double processor_started = ProcessorSeconds(m_publisher.Pid());
        const double started = Now();
        m_publisher.WriteLine("notify " + std::to_string(times) + " " + std::to_string(BYTES) +
                              " " + std::to_string(m_receivers.size()));
        double ended = 0;
        for (const auto& receiver : m_receivers)
            ended = std::max(ended, EndOf(*receiver, times));
        const double deliveries =
            static_cast<double>(times) * static_cast<double>(m_receivers.size());
        return {(ended - started) / deliveries,
                (ProcessorSeconds(m_publisher.Pid()) - processor_started) / deliveries,
                {}};
    }

private:
    double EndOf(PeerProcess& receiver, unsigned times) const
    {
        std::istringstream words(receiver.WaitForLine("received "));
        unsigned count = 0;
        double nanoseconds = 0;
        words >> count >> nanoseconds;
        if (count != times)
            throw std::runtime_error(m_kind.name + " delivered " + std::to_string(count) + " of " +
                                     std::to_string(times) + " notifications");
        return nanoseconds * 1e-9;
    }

    PeerKind m_kind;
    std::string m_address;
    PeerProcess m_publisher;
    std::vector<std::unique_ptr<PeerProcess>> m_receivers;
};

}  // namespace

nlohmann::json MeasureDeliveries(BenchBus& bus, const Effort& effort)
{
    std::vector<std::unique_ptr<Publication>> publications;
    for (const PeerKind& kind : PeersNamed(effort.peers)) {
        if (CanPublish(kind))
            publications.push_back(std::make_unique<Publication>(
                bus, kind, "publish" + std::to_string(publications.size())));
    }
    nlohmann::json results;
    for (const unsigned count : effort.receivers) {
        std::vector<Contender> contenders;
        for (const auto& publication : publications) {
            publication->GrowTo(count);
            const unsigned deliveries =
                effort.deliveries / (IsByTheDaemon(publication->Kind()) ? FEWER_ON_THE_BUS : 1);
            const unsigned times = std::max(1U, deliveries / count);
            contenders.push_back({publication->Kind().name,
                                  [&publication, times] { return publication->Deliver(times); }});
        }
        results[std::to_string(count)] = RunRounds(contenders, effort.peer_rounds);
    }
    return results;
}
