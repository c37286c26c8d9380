// One connection to the broker, from its first packet to its last. It is not renewed: who needs the
// next one makes a new link. So nothing that was on its way when a connection broke is sent again
// later, when nobody waits for it any more.
#ifndef PELMAR_BRIDGE_MQTT_LINK_H
#define PELMAR_BRIDGE_MQTT_LINK_H

#include <mosquitto.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "event-loop.h"
#include "gio-handles.h"
#include "options.h"

struct MqttMessage {
    std::string topic;
    std::vector<char> payload;
    bool retain = false;
    std::string response_topic;
    std::string correlation;
    std::chrono::seconds expiry{0};  // 0: none
    std::map<std::string, std::string> properties;
};

struct LinkFailure {
    enum class Kind {
        unreachable,  // or lost; it may work a moment later
        refused,      // the login, or the right to subscribe
        untrusted,    // the certificate of one to the other
    };
    Kind kind = Kind::unreachable;
    std::string text;
};

// Told from the loop, never from inside a function of the link.
class MqttLinkEvents {
public:
    virtual ~MqttLinkEvents() = default;

    // Subscribed to everything. `broker_limit` is the broker's largest packet, 0 for none.
    virtual void OnLinkUp(std::size_t broker_limit) = 0;
    virtual void OnMqttMessage(MqttMessage& message) = 0;

    // The last event, once, after Close too.
    virtual void OnLinkDown(const LinkFailure& failure) = 0;
};

// Lives in the loop's thread.
class MqttLink {
public:
    // `error` is empty when the broker has taken the message.
    using Published = std::function<void(const std::string& error)>;

    // Starts to connect. When the connection breaks without Close, the broker publishes an empty
    // retained message to `will_topic`.
    MqttLink(EventLoop& loop, const BrokerOptions& options, const std::string& client_id,
             const std::string& will_topic, std::vector<std::string> subscriptions,
             MqttLinkEvents& events);
    ~MqttLink();
    MqttLink(const MqttLink&) = delete;
    MqttLink& operator=(const MqttLink&) = delete;

    // `published` is called at most once: not when the link goes first.
    void Publish(const MqttMessage& message, Published published);

    // Says goodbye, after what was published before. OnLinkDown follows.
    void Close();

private:
    struct Destroy {
        void operator()(mosquitto* handle) const { mosquitto_destroy(handle); }
    };

    void SetCallbacks();
    bool SetTls();
    void Connect();
    void Pump();
    void Watch();
    void Tick();
    void Fail(LinkFailure::Kind kind, const std::string& text);
    void FailWith(int error);
    void Subscribe();
    template <typename Function>
    void Post(Function function);

    static gboolean cb_Ready(gint descriptor, GIOCondition condition, gpointer user_data);
    static void cb_Connect(mosquitto* handle, void* user_data, int reason, int flags,
                           const mosquitto_property* properties);
    static void cb_Disconnect(mosquitto* handle, void* user_data, int reason,
                              const mosquitto_property* properties);
    static void cb_Subscribe(mosquitto* handle, void* user_data, int id, int count,
                             const int* granted, const mosquitto_property* properties);
    static void cb_Publish(mosquitto* handle, void* user_data, int id, int reason,
                           const mosquitto_property* properties);
    static void cb_Message(mosquitto* handle, void* user_data, const mosquitto_message* message,
                           const mosquitto_property* properties);
    static void cb_Log(mosquitto* handle, void* user_data, int level, const char* text);
    static int cb_Passphrase(char* buffer, int size, int for_writing, void* user_data);

    EventLoop& m_loop;
    const BrokerOptions& m_options;
    const std::vector<std::string> m_subscriptions;
    MqttLinkEvents& m_events;

    std::unique_ptr<mosquitto, Destroy> m_handle;
    SourcePtr m_source;
    int m_watched_socket = -1;
    bool m_watched_for_writing = false;
    LoopTimer m_tick{m_loop};
    std::chrono::steady_clock::time_point m_up_by;
    bool m_up = false;
    bool m_down = false;
    std::size_t m_broker_limit = 0;
    std::string m_library_error;
    std::map<int, Published> m_published;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

#endif
