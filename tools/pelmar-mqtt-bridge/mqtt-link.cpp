// libmosquitto driven by the bridge's loop. Its callbacks come from inside its own functions, where
// it must be neither called nor destroyed by everybody; so each of them posts what it has to tell.

#include "mqtt-link.h"

#include <glib-unix.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr std::chrono::milliseconds TICK{1000};
constexpr std::chrono::seconds CONNECT_PATIENCE{10};
constexpr int MOST_PACKETS = 64;
constexpr int FIRST_FAILURE_REASON = 0x80;

// The library owns what it hands out until it is freed; a list of properties likewise.
using Text = std::unique_ptr<char, decltype(&std::free)>;

class Properties {
public:
    Properties() = default;
    ~Properties() { mosquitto_property_free_all(&m_list); }
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    mosquitto_property** Address() { return &m_list; }
    const mosquitto_property* Get() const { return m_list; }

private:
    mosquitto_property* m_list = nullptr;
};

void AddProperties(const MqttMessage& message, Properties& properties)
{
    mosquitto_property** list = properties.Address();
    if (!message.response_topic.empty())
        mosquitto_property_add_string(list, MQTT_PROP_RESPONSE_TOPIC,
                                      message.response_topic.c_str());
    if (!message.correlation.empty())
        mosquitto_property_add_binary(list, MQTT_PROP_CORRELATION_DATA, message.correlation.data(),
                                      static_cast<uint16_t>(message.correlation.size()));
    if (message.expiry.count() > 0)
        mosquitto_property_add_int32(list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     static_cast<uint32_t>(message.expiry.count()));
    for (const auto& [name, value] : message.properties)
        mosquitto_property_add_string_pair(list, MQTT_PROP_USER_PROPERTY, name.c_str(),
                                           value.c_str());
}

void ReadUserProperties(MqttMessage& message, const mosquitto_property* properties)
{
    char* name = nullptr;
    char* value = nullptr;
    bool again = false;
    while ((properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY,
                                                             &name, &value, again)) != nullptr) {
        const Text held_name(name, std::free);
        const Text held_value(value, std::free);
        message.properties[name] = value;
        again = true;
    }
}

void ReadProperties(MqttMessage& message, const mosquitto_property* properties)
{
    char* topic = nullptr;
    if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false) !=
        nullptr)
        message.response_topic = Text(topic, std::free).get();
    void* data = nullptr;
    uint16_t size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size,
                                       false) != nullptr)
        message.correlation.assign(Text(static_cast<char*>(data), std::free).get(), size);
    uint32_t expiry = 0;
    mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &expiry, false);
    message.expiry = std::chrono::seconds(expiry);
    ReadUserProperties(message, properties);
}

// A broker that leaves Nagle's algorithm on, as Mosquitto does, holds its next packet back until
// the last one is acknowledged, which would add 40 ms to a round trip. The kernel forgets the wish.
void AcknowledgeNow(int socket)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
}

// The broker waits for 1.5 times what it is told, and Mosquitto looks only every 5 seconds; the
// library waits for twice as much. With this neither takes more than 1.5 keep-alives.
int PingInterval(std::chrono::seconds keep_alive)
{
    const auto seconds = static_cast<int>(keep_alive.count());
    return std::min(seconds * 3 / 4, seconds - 4);
}

std::string TextOfLibraryError(int error)
{
    return error == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(error);
}

}  // namespace

MqttLink::MqttLink(EventLoop& loop, const BrokerOptions& options, const std::string& client_id,
                   const std::string& will_topic, std::vector<std::string> subscriptions,
                   MqttLinkEvents& events)
    : m_loop(loop),
      m_options(options),
      m_subscriptions(std::move(subscriptions)),
      m_events(events),
      m_handle(mosquitto_new(client_id.c_str(), true, this)),
      m_up_by(std::chrono::steady_clock::now() + CONNECT_PATIENCE)
{
    mosquitto* handle = m_handle.get();
    mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
    SetCallbacks();
    if (!m_options.user.empty())
        mosquitto_username_pw_set(
            handle, m_options.user.c_str(),
            m_options.password.empty() ? nullptr : m_options.password.c_str());
    mosquitto_will_set(handle, will_topic.c_str(), 0, nullptr, 1, true);
    if (SetTls())
        Connect();
}

MqttLink::~MqttLink() = default;

void MqttLink::SetCallbacks()
{
    mosquitto* handle = m_handle.get();
    mosquitto_log_callback_set(handle, cb_Log);
    mosquitto_connect_v5_callback_set(handle, cb_Connect);
    mosquitto_disconnect_v5_callback_set(handle, cb_Disconnect);
    mosquitto_subscribe_v5_callback_set(handle, cb_Subscribe);
    mosquitto_publish_v5_callback_set(handle, cb_Publish);
    mosquitto_message_v5_callback_set(handle, cb_Message);
}

bool MqttLink::SetTls()
{
    if (!m_options.tls)
        return true;
    const auto or_null = [](const std::string& text) {
        return text.empty() ? nullptr : text.c_str();
    };
    if (m_options.ca_file.empty())
        mosquitto_int_option(m_handle.get(), MOSQ_OPT_TLS_USE_OS_CERTS, 1);
    const int error = mosquitto_tls_set(m_handle.get(), or_null(m_options.ca_file), nullptr,
                                        or_null(m_options.certificate_file),
                                        or_null(m_options.key_file), cb_Passphrase);
    if (error != MOSQ_ERR_SUCCESS)
        Fail(LinkFailure::Kind::untrusted,
             "the certificate files cannot be used: " + TextOfLibraryError(error) +
                 (m_library_error.empty() ? "" : ": ") + m_library_error);
    return error == MOSQ_ERR_SUCCESS;
}

void MqttLink::Connect()
{
    const int error = mosquitto_connect_async(m_handle.get(), m_options.host.c_str(),
                                              m_options.port, PingInterval(m_options.keep_alive));
    if (error != MOSQ_ERR_SUCCESS) {
        FailWith(error);
        return;
    }
    Watch();
    Tick();
}

// ---- Driving the library -------------------------------------------------------------------

gboolean MqttLink::cb_Ready(gint /*descriptor*/, GIOCondition /*condition*/, gpointer user_data)
{
    static_cast<MqttLink*>(user_data)->Pump();
    return G_SOURCE_CONTINUE;
}

// With TLS a part of what has come may wait in the library where the socket does not show it, so
// everything has to be read each time.
void MqttLink::Pump()
{
    mosquitto* handle = m_handle.get();
    int error = MOSQ_ERR_SUCCESS;
    bool drained = false;
    for (int packets = 0; !drained && packets < MOST_PACKETS && error == MOSQ_ERR_SUCCESS;
         ++packets) {
        errno = 0;
        error = mosquitto_loop_read(handle, 1);
        drained = errno == EAGAIN;
    }
    if (error == MOSQ_ERR_SUCCESS && mosquitto_want_write(handle))
        error = mosquitto_loop_write(handle, 1);
    if (error == MOSQ_ERR_SUCCESS)
        error = mosquitto_loop_misc(handle);
    if (error != MOSQ_ERR_SUCCESS)
        FailWith(error);
    else if (!drained)
        Post([this] { Pump(); });
    AcknowledgeNow(mosquitto_socket(handle));
    Watch();
}

void MqttLink::Watch()
{
    const int socket = m_down ? -1 : mosquitto_socket(m_handle.get());
    const bool for_writing = socket != -1 && mosquitto_want_write(m_handle.get());
    if (socket == m_watched_socket && for_writing == m_watched_for_writing)
        return;
    m_watched_socket = socket;
    m_watched_for_writing = for_writing;
    m_source.reset();
    if (socket == -1)
        return;
    const auto condition = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR |
                                                     (for_writing ? G_IO_OUT : GIOCondition(0)));
    m_source.reset(g_unix_fd_source_new(socket, condition));
    g_source_set_callback(m_source.get(), G_SOURCE_FUNC(cb_Ready), this, nullptr);
    g_source_attach(m_source.get(), m_loop.Context());
}

void MqttLink::Tick()
{
    if (!m_up && std::chrono::steady_clock::now() > m_up_by)
        Fail(LinkFailure::Kind::unreachable, "the broker does not answer");
    if (m_down)
        return;
    Pump();
    m_tick.Arm(TICK, [this] { Tick(); });
}

template <typename Function>
void MqttLink::Post(Function function)
{
    m_loop.Post([weak = std::weak_ptr<bool>(m_alive), function = std::move(function)]() mutable {
        if (!weak.expired())
            function();
    });
}

void MqttLink::Fail(LinkFailure::Kind kind, const std::string& text)
{
    if (std::exchange(m_down, true))
        return;
    Watch();
    Post([this, failure = LinkFailure{kind, text}] { m_events.OnLinkDown(failure); });
}

void MqttLink::FailWith(int error)
{
    const std::string cause = m_library_error.empty() ? "" : " (" + m_library_error + ")";
    const auto mentions = [&](const char* word) { return cause.find(word) != std::string::npos; };
    const bool untrusted =
        mentions("certificate") || mentions("Unable to load") || mentions("alert");
    Fail(untrusted ? LinkFailure::Kind::untrusted : LinkFailure::Kind::unreachable,
         TextOfLibraryError(error) + cause);
}

void MqttLink::cb_Log(mosquitto* /*handle*/, void* user_data, int level, const char* text)
{
    std::string& error = static_cast<MqttLink*>(user_data)->m_library_error;
    // The library's own line names the file, the first of OpenSSL's the reason.
    if (level == MOSQ_LOG_ERR && error.find("OpenSSL") == std::string::npos)
        error += (error.empty() ? "" : " ") + std::string(text);
}

// A key without one is asked for: a daemon has nobody to ask.
int MqttLink::cb_Passphrase(char* /*buffer*/, int /*size*/, int /*for_writing*/,
                            void* /*user_data*/)
{
    return 0;
}

// ---- Coming up and going down --------------------------------------------------------------

void MqttLink::cb_Connect(mosquitto* /*handle*/, void* user_data, int reason, int /*flags*/,
                          const mosquitto_property* properties)
{
    auto& self = *static_cast<MqttLink*>(user_data);
    if (reason != 0) {
        const bool busy = reason == MQTT_RC_SERVER_BUSY || reason == MQTT_RC_SERVER_UNAVAILABLE;
        self.Fail(
            busy ? LinkFailure::Kind::unreachable : LinkFailure::Kind::refused,
            std::string("the broker refused the connection: ") + mosquitto_reason_string(reason));
        return;
    }
    uint32_t limit = 0;
    mosquitto_property_read_int32(properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, &limit, false);
    self.m_broker_limit = limit;
    self.Post([&self] { self.Subscribe(); });
}

void MqttLink::Subscribe()
{
    std::vector<char*> topics;
    for (const std::string& topic : m_subscriptions)
        topics.push_back(const_cast<char*>(topic.c_str()));
    const int error =
        mosquitto_subscribe_multiple(m_handle.get(), nullptr, static_cast<int>(topics.size()),
                                     topics.data(), m_options.qos, 0, nullptr);
    if (error != MOSQ_ERR_SUCCESS)
        FailWith(error);
    Watch();
}

void MqttLink::cb_Subscribe(mosquitto* /*handle*/, void* user_data, int /*id*/, int count,
                            const int* granted, const mosquitto_property* /*properties*/)
{
    auto& self = *static_cast<MqttLink*>(user_data);
    for (int i = 0; i < count; ++i) {
        if (granted[i] < FIRST_FAILURE_REASON)
            continue;
        self.Fail(LinkFailure::Kind::refused,
                  "the broker does not allow to subscribe to " +
                      self.m_subscriptions[static_cast<std::size_t>(i)] + ": " +
                      mosquitto_reason_string(granted[i]));
        return;
    }
    self.m_up = true;
    self.Post([&self] {
        if (!self.m_down)
            self.m_events.OnLinkUp(self.m_broker_limit);
    });
}

void MqttLink::cb_Disconnect(mosquitto* /*handle*/, void* user_data, int reason,
                             const mosquitto_property* /*properties*/)
{
    auto& self = *static_cast<MqttLink*>(user_data);
    if (reason >= FIRST_FAILURE_REASON)
        self.Fail(LinkFailure::Kind::unreachable, std::string("the broker ended the connection: ") +
                                                      mosquitto_reason_string(reason));
    else
        self.FailWith(reason);
}

void MqttLink::Close()
{
    mosquitto_disconnect_v5(m_handle.get(), 0, nullptr);
    Watch();
}

// ---- Traffic -------------------------------------------------------------------------------

void MqttLink::Publish(const MqttMessage& message, Published published)
{
    Properties properties;
    AddProperties(message, properties);
    int id = 0;
    // What is retained is the state of a bridge, and always confirmed.
    const int qos = message.retain ? std::max(m_options.qos, 1) : m_options.qos;
    const int error = mosquitto_publish_v5(
        m_handle.get(), &id, message.topic.c_str(), static_cast<int>(message.payload.size()),
        message.payload.data(), qos, message.retain, properties.Get());
    Watch();
    if (error == MOSQ_ERR_SUCCESS)
        m_published[id] = std::move(published);
    else if (published)
        Post([published = std::move(published), text = TextOfLibraryError(error)] {
            published(text);
        });
}

void MqttLink::cb_Publish(mosquitto* /*handle*/, void* user_data, int id, int reason,
                          const mosquitto_property* /*properties*/)
{
    auto& self = *static_cast<MqttLink*>(user_data);
    self.Post([&self, id, reason] {
        auto node = self.m_published.extract(id);
        if (!node.empty() && node.mapped())
            node.mapped()(reason >= FIRST_FAILURE_REASON ? mosquitto_reason_string(reason) : "");
    });
}

void MqttLink::cb_Message(mosquitto* /*handle*/, void* user_data, const mosquitto_message* message,
                          const mosquitto_property* properties)
{
    auto& self = *static_cast<MqttLink*>(user_data);
    const auto* payload = static_cast<const char*>(message->payload);
    MqttMessage received;
    received.topic = message->topic;
    received.payload.assign(payload, payload + message->payloadlen);
    received.retain = message->retain;
    ReadProperties(received, properties);
    self.Post([&self, received = std::move(received)]() mutable {
        self.m_events.OnMqttMessage(received);
    });
}
