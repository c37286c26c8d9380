// A server on MQTT 5 alone: it answers a request with its own bytes, at its response topic.
//
//   serve-mqtt PORT    of the broker on this machine; out: serving

#include <cstdlib>
#include <memory>

#include "mqtt-peer.h"
#include "server.h"

namespace {

using Text = std::unique_ptr<char, decltype(&std::free)>;

void Answer(MqttPeer& peer, const mosquitto_message& request, const mosquitto_property* properties)
{
    char* topic = nullptr;
    void* correlation = nullptr;
    std::uint16_t size = 0;
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &size,
                                   false);
    const Text held_topic(topic, std::free);
    const Text held_correlation(static_cast<char*>(correlation), std::free);
    mosquitto_property* answer = nullptr;
    mosquitto_property_add_binary(&answer, MQTT_PROP_CORRELATION_DATA, correlation, size);
    peer.Publish(topic, request.payload, static_cast<std::size_t>(request.payloadlen), answer);
}

void Serve(const std::string& port)
{
    mosquitto_lib_init();
    MqttPeer peer(port, MqttPeer::REQUESTS,
                  [&peer](const mosquitto_message& request, const mosquitto_property* properties) {
                      Answer(peer, request, properties);
                  });
    server::Say("serving ");
    for (;;)
        peer.Turn();
}

}  // namespace

int main(int argc, char** argv)
{
    server::Run(argc, argv, Serve);
}
