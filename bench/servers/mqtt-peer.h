/// @file
/// One end of a request and its response over MQTT 5, on libmosquitto's own loop.
#ifndef PELMAR_BENCH_MQTT_PEER_H
#define PELMAR_BENCH_MQTT_PEER_H

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

class MqttPeer {
public:
    using Handler =
        std::function<void(const mosquitto_message& message, const mosquitto_property* properties)>;

    static constexpr const char* REQUESTS = "bench/requests";

    /// Connected to the broker on this machine, and subscribed, when it returns.
    MqttPeer(const std::string& port, const std::string& topic, Handler handler)
        : m_handler(std::move(handler))
    {
        constexpr int keep_alive = 60;
        mosquitto_int_option(m_handle.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(m_handle.get(), MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_subscribe_callback_set(m_handle.get(), cb_Subscribe);
        mosquitto_message_v5_callback_set(m_handle.get(), cb_Message);
        Check(mosquitto_connect(m_handle.get(), "127.0.0.1", std::stoi(port), keep_alive));
        Check(mosquitto_subscribe(m_handle.get(), nullptr, topic.c_str(), QOS));
        while (!m_subscribed)
            Turn();
    }
    MqttPeer(const MqttPeer&) = delete;
    MqttPeer& operator=(const MqttPeer&) = delete;

    /// Takes the properties over.
    void Publish(const char* topic, const void* data, std::size_t size,
                 mosquitto_property* properties)
    {
        const int result = mosquitto_publish_v5(
            m_handle.get(), nullptr, topic, static_cast<int>(size), data, QOS, false, properties);
        mosquitto_property_free_all(&properties);
        Check(result);
    }

    /// Waits until something has come, and deals with it.
    void Turn()
    {
        constexpr int patience_ms = 1000;
        Check(mosquitto_loop(m_handle.get(), patience_ms, 1));
        // The broker leaves Nagle's algorithm on: its next packet waits until the last one is
        // acknowledged. The kernel forgets the wish.
        const int on = 1;
        setsockopt(mosquitto_socket(m_handle.get()), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
    }

private:
    // As the bridge's own.
    static constexpr int QOS = 1;

    struct Destroy {
        void operator()(mosquitto* handle) const { mosquitto_destroy(handle); }
    };

    static void Check(int result)
    {
        if (result != MOSQ_ERR_SUCCESS)
            throw std::runtime_error(std::string("MQTT: ") + mosquitto_strerror(result));
    }

    static void cb_Subscribe(mosquitto* /*handle*/, void* user_data, int /*id*/, int /*count*/,
                             const int* /*granted*/)
    {
        static_cast<MqttPeer*>(user_data)->m_subscribed = true;
    }
    static void cb_Message(mosquitto* /*handle*/, void* user_data, const mosquitto_message* message,
                           const mosquitto_property* properties)
    {
        static_cast<MqttPeer*>(user_data)->m_handler(*message, properties);
    }

    Handler m_handler;
    bool m_subscribed = false;
    std::unique_ptr<mosquitto, Destroy> m_handle{mosquitto_new(nullptr, true, this)};
};

#endif
