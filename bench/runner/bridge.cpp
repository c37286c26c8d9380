// A Send through the MQTT bridge, next to a direct one on the service's own bus, and next to a
// request and its response over MQTT alone. Two private buses stand for two machines.

#include "calls.h"
#include "handshakes.h"
#include "machines.h"
#include "mqtt-peer.h"
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
std::string NameOfBridge()
{
    ServerProcess client(ClientOf("endpoint"), CHANNEL);
    const std::string ready = client.Process().WaitForLine("ready ");
    return ready.substr(ready.find(' ') + 1);
}

}  // namespace

nlohmann::json MeasureBridge(BenchBus& bus, const Effort& effort)
{
    ServerProcess service(KindNamed("endpoint"), CHANNEL);
    const auto direct = service.NewClient();
    const Broker broker;
    const Bridge attached(bus, broker, {"--attach", CHANNEL});
    // The system bus of all that follows.
    const BenchBus other_bus;
    const Bridge offering(other_bus, broker, {"--offer", CHANNEL});
    const auto across = ClientOnTheBus(NameOfBridge(), CHANNEL);
    ServerProcess responder({"mqtt", "serve-mqtt", {}, false, false}, broker.Port());
    MqttClient mqtt(broker.Port());

    const std::vector<pid_t> responders = {responder.Process().Pid()};
    const std::vector<pid_t> services = {service.Process().Pid()};
    const std::vector<pid_t> bridged = {services.front(), attached.Pid(), offering.Pid()};
    nlohmann::json results;
    for (const std::size_t size : effort.sizes) {
        const EchoClient::Bytes data(size, 's');
        const double seconds = effort.sample_seconds;
        results[std::to_string(size)] = RunRounds(
            {
                {"bridge", [&] { return CallFor(seconds, *across, bridged, data); }},
                {"direct", [&] { return CallFor(seconds, *direct, services, data); }},
                {"mqtt", [&] { return CallFor(seconds, mqtt, responders, data); }},
            },
            effort.rounds);
    }
    return results;
}
