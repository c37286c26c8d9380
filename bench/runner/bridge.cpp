// A Send, and an endpoint's Request, through the MQTT bridge, with direct paths on the way and
// without; next to a Send on the service's own bus, and next to a request and its response over
// MQTT alone. Two private buses stand for two machines.

#include <stdlib.h>

#include "calls.h"
#include "handshakes.h"
#include "machines.h"
#include "mqtt-peer.h"
#include "peers.h"
#include "precedence.h"
#include "server-process.h"

namespace {

const std::string CHANNEL = "across";

class MqttClient final : public EchoClient {
public:
    explicit MqttClient(const std::string& port)
        : m_peer(port, ANSWERS,
                 [this](const mosquitto_message& answer, const mosquitto_property* /*properties*/) {
                     m_answer_size = answer.payloadlen;
                 })
    {
    }

    void Call(const Bytes& data) override
    {
        mosquitto_property* properties = nullptr;
        mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, ANSWERS);
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, "1", 1);
        m_answer_size = NONE;
        m_peer.Publish(MqttPeer::REQUESTS, data.data(), data.size(), properties);
        while (m_answer_size == NONE)
            m_peer.Turn();
        if (m_answer_size != static_cast<int>(data.size()))
            throw std::runtime_error("an answer of " + std::to_string(m_answer_size) +
                                     " bytes to " + std::to_string(data.size()) + " bytes");
    }

private:
    static constexpr const char* ANSWERS = "bench/answers";
    static constexpr int NONE = -1;

    int m_answer_size = NONE;
    MqttPeer m_peer;
};

// The name that the bridge has on the bus: that of the only partner of a client there.
std::string NameOfBridge(const std::string& channel)
{
    ServerProcess client(ClientOf("endpoint"), channel);
    const std::string ready = client.Process().WaitForLine("ready ");
    return ready.substr(ready.find(' ') + 1);
}

// While it lives, endpoints that are started stay on the bus.
class KeptOnTheBus {
public:
    KeptOnTheBus() { setenv(VARIABLE, "0", 1); }
    ~KeptOnTheBus() { unsetenv(VARIABLE); }
    KeptOnTheBus(const KeptOnTheBus&) = delete;
    KeptOnTheBus& operator=(const KeptOnTheBus&) = delete;

private:
    static constexpr const char* VARIABLE = "PELMAR_DIRECT";
};

// A service on its bus, and the bridge that is its client.
class NearSide {
public:
    NearSide(const BenchBus& bus, const Broker& broker, const std::string& channel)
        : m_service(KindNamed("endpoint"), channel), m_attached(bus, broker, {"--attach", channel})
    {
    }

    ServerProcess& Service() { return m_service; }
    pid_t Bridge() const { return m_attached.Pid(); }

private:
    ServerProcess m_service;
    ::Bridge m_attached;
};

// The bridge in the place of that service on the other bus, and clients of it: one of sd-bus and an
// endpoint.
class FarSide {
public:
    FarSide(const BenchBus& bus, const Broker& broker, const std::string& channel, NearSide& near,
            const PeerKind& endpoint)
        : m_offering(bus, broker, {"--offer", channel}),
          m_client(ClientOnTheBus(NameOfBridge(channel), channel)),
          m_endpoint(endpoint, "client", channel),
          m_servers({near.Service().Process().Pid(), near.Bridge(), m_offering.Pid()})
    {
        // The client above has found it through both bridges, so they run.
        for (const pid_t server : m_servers)
            GivePrecedenceTo(server);
    }

    Sample CallFor(double seconds, const EchoClient::Bytes& data)
    {
        return ::CallFor(seconds, *m_client, m_servers, data);
    }

    Sample RequestFor(double seconds, std::size_t size)
    {
        return ::RequestFor(seconds, m_endpoint, m_servers, size);
    }

private:
    Bridge m_offering;
    std::unique_ptr<EchoClient> m_client;
    PeerProcess m_endpoint;
    std::vector<pid_t> m_servers;
};

const std::string ON_THE_BUS = CHANNEL + "_on_the_bus";

std::unique_ptr<NearSide> NearSideOnTheBus(const BenchBus& bus, const Broker& broker)
{
    const KeptOnTheBus kept;
    return std::make_unique<NearSide>(bus, broker, ON_THE_BUS);
}

std::unique_ptr<FarSide> FarSideOnTheBus(const BenchBus& bus, const Broker& broker, NearSide& near)
{
    const KeptOnTheBus kept;
    return std::make_unique<FarSide>(bus, broker, ON_THE_BUS, near, EndpointPeer("bus"));
}

}  // namespace

nlohmann::json MeasureBridge(BenchBus& bus, const Effort& effort)
{
    Broker broker;
    GivePrecedenceTo(broker.Process().Pid());
    NearSide near(bus, broker, CHANNEL);
    const auto near_on_the_bus = NearSideOnTheBus(bus, broker);
    const auto local = near.Service().NewClient();
    // The system bus of all that follows.
    const BenchBus other_bus;
    FarSide far(other_bus, broker, CHANNEL, near, EndpointPeer());
    const auto far_on_the_bus = FarSideOnTheBus(other_bus, broker, *near_on_the_bus);
    ServerProcess responder({"mqtt", "serve-mqtt", {}, false, false}, broker.Port());
    MqttClient mqtt(broker.Port());

    const std::vector<pid_t> responders = {responder.Process().Pid()};
    const std::vector<pid_t> services = {near.Service().Process().Pid()};
    nlohmann::json results;
    for (const std::size_t size : effort.sizes) {
        const EchoClient::Bytes data(size, 's');
        const double seconds = effort.sample_seconds;
        results[std::to_string(size)] = RunRounds(
            {
                {"bridge", [&] { return far.CallFor(seconds, data); }},
                {"bridge, bus only", [&] { return far_on_the_bus->CallFor(seconds, data); }},
                {"endpoint, bridge", [&] { return far.RequestFor(seconds, size); }},
                {"endpoint, bridge, bus only",
                 [&] { return far_on_the_bus->RequestFor(seconds, size); }},
                {"no bridge", [&] { return CallFor(seconds, *local, services, data); }},
                {"mqtt", [&] { return CallFor(seconds, mqtt, responders, data); }},
            },
            effort.peer_rounds);
    }
    return results;
}
