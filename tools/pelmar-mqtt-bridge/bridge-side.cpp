#include "bridge-side.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <random>
#include <system_error>
#include <utility>

#include "exit-status.h"
#include "report.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds FIRST_RECONNECT{50};
constexpr milliseconds LARGEST_RECONNECT{800};
constexpr milliseconds TICK{1000};

// A reason that names a number may come in many forms.
constexpr std::size_t MOST_REASONS = 100;

// For the goodbye.
constexpr milliseconds CLOSE_PATIENCE{2000};

// What a packet has beside topic and payload, at most: the properties.
constexpr std::size_t PACKET_OVERHEAD = 1024;

// Sixteen digits, so that with its prefix it is a client id that every broker takes.
std::string NewSession()
{
    constexpr const char* digits = "0123456789abcdef";
    std::random_device random;
    std::string session;
    for (int i = 0; i < 16; ++i)
        session += digits[random() % 16];
    return session;
}

}  // namespace

std::int64_t ClockNow()
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

std::int64_t NumberOf(const MqttMessage& message, const std::string& property)
{
    const auto found = message.properties.find(property);
    return found == message.properties.end() ? 0 : std::strtoll(found->second.c_str(), nullptr, 10);
}

std::uint64_t SequenceNumberOf(const MqttMessage& message)
{
    return static_cast<std::uint64_t>(NumberOf(message, "number"));
}

BridgeSide::BridgeSide(EventLoop& loop, const Options& options, const std::string& channel,
                       const std::string& kind, Fatal fatal)
    : m_loop(loop),
      m_options(options),
      m_channel(channel),
      m_kind(kind),
      m_topics(options.topic_prefix, channel),
      m_fatal(std::move(fatal)),
      m_budget(options.queue_bytes),
      m_reconnect_delay(FIRST_RECONNECT)
{
}

// ---- Sessions ------------------------------------------------------------------------------

void BridgeSide::Connect()
{
    m_session = NewSession();
    ++m_session_number;
    m_last_number = 0;
    m_link = std::make_unique<MqttLink>(m_loop, m_options.broker, "pelmar" + m_session,
                                        m_topics.Make(m_kind, m_session), Subscriptions(m_session),
                                        *this);
}

void BridgeSide::OnLinkUp(std::size_t broker_limit)
{
    m_has_session = true;
    m_was_up = true;
    m_reconnect_delay = FIRST_RECONNECT;
    m_reported_failure.clear();
    m_refusals.clear();
    const std::size_t overhead = PACKET_OVERHEAD + m_options.topic_prefix.size();
    m_largest_message = m_options.max_message_bytes;
    if (broker_limit != 0)
        m_largest_message =
            std::min(m_largest_message, broker_limit > overhead ? broker_limit - overhead : 0);
    report::Info("connected to the broker as pelmar" + m_session);
    if (!m_abandoned_session.empty())
        PublishState(std::exchange(m_abandoned_session, {}));
    OnSessionStart();
    Tick();
}

void BridgeSide::OnMqttMessage(MqttMessage& message)
{
    if (m_has_session)
        OnMessage(m_topics.Levels(message.topic), message);
}

void BridgeSide::OnLinkDown(const LinkFailure& failure)
{
    EndSession();
    m_link.reset();
    if (m_stopping)
        return;
    ReportDown(failure);
    const bool for_good = !m_was_up && failure.kind != LinkFailure::Kind::unreachable;
    if (for_good)
        m_fatal(failure.kind == LinkFailure::Kind::refused ? STATUS_REFUSED : STATUS_FAILURE);
    else
        Reconnect();
}

void BridgeSide::EndSession()
{
    if (!std::exchange(m_has_session, false))
        return;
    m_tick.Disarm();
    if (!m_announced_bus.empty())
        m_abandoned_session = m_session;
    m_announced_bus.clear();
    OnSessionEnd();
}

// The bridges of a broker do not come back to it all at the same moment.
void BridgeSide::Reconnect()
{
    std::minstd_rand random(std::random_device{}());
    const auto half = m_reconnect_delay.count() / 2;
    const milliseconds delay(half +
                             std::uniform_int_distribution<milliseconds::rep>(0, half)(random));
    m_reconnect.Arm(delay, [this] { Connect(); });
    m_reconnect_delay = std::min(LARGEST_RECONNECT, m_reconnect_delay * 2);
}

void BridgeSide::ReportDown(const LinkFailure& failure)
{
    if (std::exchange(m_reported_failure, failure.text) == failure.text)
        return;
    const BrokerOptions& broker = m_options.broker;
    const std::string where = broker.host + " port " + std::to_string(broker.port);
    std::string text = "no connection to the broker " + where + ": " + failure.text;
    if (failure.kind == LinkFailure::Kind::refused)
        text += "; check --user, --password-file and the broker's access control";
    if (failure.kind == LinkFailure::Kind::untrusted)
        text += "; check --ca, --cert, --key and --host against the broker's certificate";
    report::Error(text);
}

void BridgeSide::Stop()
{
    m_stopping = true;
    m_reconnect.Disarm();
    if (!m_has_session) {
        m_link.reset();
        return;
    }
    Unannounce();
    EndSession();
    m_link->Close();
    bool too_late = false;
    m_reconnect.Arm(CLOSE_PATIENCE, [&too_late] { too_late = true; });
    m_loop.RunUntil([&] { return m_link == nullptr || too_late; });
    m_reconnect.Disarm();
    m_link.reset();
}

void BridgeSide::Tick()
{
    m_tick.Arm(TICK, [this] { Tick(); });
    if (IsAnnounced() && std::chrono::steady_clock::now() >= m_refresh_at)
        PublishState(m_session);
    OnTick();
}

// ---- The bridge's own state ----------------------------------------------------------------

void BridgeSide::Announce(const std::string& bus)
{
    m_announced_bus = bus;
    PublishState(m_session);
}

void BridgeSide::Unannounce()
{
    if (!IsAnnounced())
        return;
    m_announced_bus.clear();
    PublishState(m_session);
}

void BridgeSide::PublishState(const std::string& session)
{
    MqttMessage state;
    state.topic = m_topics.Make(m_kind, session);
    state.payload.assign(m_announced_bus.begin(), m_announced_bus.end());
    state.retain = true;
    if (IsAnnounced())
        state.expiry = 3 * m_options.broker.keep_alive;
    m_refresh_at = std::chrono::steady_clock::now() + m_options.broker.keep_alive;
    m_link->Publish(state, [this](const std::string& error) {
        if (!error.empty())
            Refuse("the broker refused the bridge's own state: " + error);
    });
}

void BridgeSide::PublishFence()
{
    MqttMessage fence;
    fence.topic = m_topics.Make(m_kind, m_session);
    m_link->Publish(fence, {});
}

// ---- Messages ------------------------------------------------------------------------------

MqttMessage BridgeSide::NewMessage(const std::string& topic, const std::string& kind)
{
    MqttMessage message;
    message.topic = topic;
    message.properties["kind"] = kind;
    return message;
}

MqttMessage BridgeSide::NewNumberedMessage(const std::string& topic, const std::string& kind)
{
    MqttMessage message = NewMessage(topic, kind);
    message.properties["number"] = std::to_string(++m_last_number);
    return message;
}

void BridgeSide::Publish(const MqttMessage& message, ByteBudget::Share share,
                         MqttLink::Published refused)
{
    m_link->Publish(message, [this, share = std::move(share),
                              refused = std::move(refused)](const std::string& error) {
        if (error.empty())
            return;
        Refuse("the broker refused a message: " + error);
        if (refused)
            refused(error);
    });
}

void BridgeSide::CarryNotification(const std::string& topic, Bytes data, ByteBudget::Share share)
{
    const std::string too_large = TooLarge(data.size());
    if (!too_large.empty()) {
        Refuse(too_large);
        return;
    }
    MqttMessage message = NewNumberedMessage(topic, "notification");
    message.payload = std::move(data);
    ++m_counters.notifications;
    Publish(message, std::move(share));
}

std::unique_ptr<PelmarEndpoint> BridgeSide::NewEndpoint(PelmarEndpoint::Role role) const
{
    auto endpoint = std::make_unique<PelmarEndpoint>(role, m_channel);
    endpoint->RunHandlersIn(m_loop.Context());
    endpoint->SetWindow(m_options.queue_bytes);
    return endpoint;
}

void BridgeSide::StartEndpoint(PelmarEndpoint& endpoint)
{
    try {
        endpoint.Start();
    } catch (const std::system_error& error) {
        report::Error(std::string("cannot come onto the bus: ") + error.what());
        m_fatal(STATUS_FAILURE);
    }
}

bool BridgeSide::NotifyPartners(PelmarEndpoint& endpoint, Bytes data)
{
    const PelmarEndpoint::Broadcast broadcast = endpoint.NotifyAll(std::move(data));
    if (broadcast.sent != 0)
        ++m_counters.notifications;
    for (const PelmarEndpoint::Missed& missed : broadcast.missed) {
        const bool is_gone = missed.status == PelmarEndpoint::Status::no_such_partner;
        if (!is_gone)
            Refuse(std::string("a notification did not reach a partner: ") +
                   PelmarEndpoint::ToString(missed.status));
    }
    return broadcast.sent != 0 || !broadcast.missed.empty();
}

bool BridgeSide::IsNew(SequenceMemory& received, const MqttMessage& message)
{
    std::uint64_t missing = 0;
    if (!received.Take(SequenceNumberOf(message), missing)) {
        ++m_counters.duplicates;
        return false;
    }
    if (missing != 0) {
        m_counters.lost += missing;
        report::Error(std::to_string(missing) + " messages were lost on the way to this bridge");
    }
    return true;
}

std::string BridgeSide::TooLarge(std::size_t size) const
{
    if (size <= m_largest_message)
        return {};
    return "the message is too large for the bridge: " + std::to_string(size) +
           " bytes, it carries up to " + std::to_string(m_largest_message);
}

void BridgeSide::Refuse(const std::string& reason)
{
    ++m_counters.refused;
    if (!m_refusals.insert(reason).second || m_refusals.size() > MOST_REASONS)
        return;
    report::Error(reason + " (said once, then counted)");
}
