// What both sides of the bridge are: a link that is renewed when it breaks, the bridge's own state
// kept at the broker, and an account of what became of the messages.
#ifndef PELMAR_BRIDGE_BRIDGE_SIDE_H
#define PELMAR_BRIDGE_BRIDGE_SIDE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "byte-budget.h"
#include "counters.h"
#include "event-loop.h"
#include "mqtt-link.h"
#include "options.h"
#include "pelmar-endpoint.h"
#include "sequence-memory.h"
#include "topics.h"

using Bytes = PelmarEndpoint::Bytes;

// Milliseconds of this machine's clock, which goes on while the machine sleeps. Clocks of two
// machines are never compared.
std::int64_t ClockNow();

// A user property that is a number; 0 when it is missing or none.
std::int64_t NumberOf(const MqttMessage& message, const std::string& property);

// Which one of its sender's messages it is.
std::uint64_t SequenceNumberOf(const MqttMessage& message);

// Lives in the loop's thread.
class BridgeSide : public MqttLinkEvents {
public:
    // What the bridge has to end for, with the exit status.
    using Fatal = std::function<void(int status)>;

    // `kind` is the topic of its own state.
    BridgeSide(EventLoop& loop, const Options& options, const std::string& channel,
               const std::string& kind, Fatal fatal);
    ~BridgeSide() override = default;
    BridgeSide(const BridgeSide&) = delete;
    BridgeSide& operator=(const BridgeSide&) = delete;

    virtual void Start() { Connect(); }

    // Leaves bus and broker; what it is to be said to the broker is said.
    virtual void Stop();

    const Counters& Count() const { return m_counters; }

protected:
    // The session in which something was begun: it is over when the number has changed.
    using SessionNumber = std::uint64_t;

    virtual std::vector<std::string> Subscriptions(const std::string& session) const = 0;
    virtual void OnSessionStart() = 0;
    virtual void OnSessionEnd() = 0;
    virtual void OnMessage(const std::vector<std::string>& levels, MqttMessage& message) = 0;

    // About once a second while there is a session.
    virtual void OnTick() = 0;

    const std::string& Session() const { return m_session; }
    SessionNumber CurrentSession() const { return m_session_number; }
    bool HasSession() const { return m_has_session; }
    bool IsStopping() const { return m_stopping; }

    // The bridge's own state at the broker.
    void Announce(const std::string& bus);
    void Unannounce();
    bool IsAnnounced() const { return !m_announced_bus.empty(); }

    // For an empty state that is not kept: it only goes round.
    void PublishFence();

    // `kind` says what the message is. Those whose order counts are numbered within the session.
    static MqttMessage NewMessage(const std::string& topic, const std::string& kind);
    MqttMessage NewNumberedMessage(const std::string& topic, const std::string& kind);
    std::uint64_t LastNumber() const { return m_last_number; }

    // Hands the message to the broker. `share` is held until it has it.
    void Publish(const MqttMessage& message, ByteBudget::Share share,
                 MqttLink::Published refused = {});

    // Takes room in the queue. Null when there is none.
    ByteBudget::Share TakeRoom(std::size_t size) { return m_budget.Take(size); }

    // Sends a notification on its way, unless it is too large.
    void CarryNotification(const std::string& topic, Bytes data, ByteBudget::Share share);

    // The bridge's end of the local channel, not started yet. Its handlers run in the loop's
    // thread.
    std::unique_ptr<PelmarEndpoint> NewEndpoint(PelmarEndpoint::Role role) const;

    // Ends the bridge where the process can have no more threads or descriptors.
    void StartEndpoint(PelmarEndpoint& endpoint);

    // Hands a notification to all partners of the endpoint. False when there is none.
    bool NotifyPartners(PelmarEndpoint& endpoint, Bytes data);

    // Counts what is a duplicate, which is not to be taken, and what is missing before it.
    bool IsNew(SequenceMemory& received, const MqttMessage& message);

    // Why the message is too large to be carried; empty when it is not.
    std::string TooLarge(std::size_t size) const;

    // Counts, and says so the first time in a session for each reason.
    void Refuse(const std::string& reason);

    const Options& GetOptions() const { return m_options; }
    const std::string& Channel() const { return m_channel; }
    const Topics& GetTopics() const { return m_topics; }
    Counters& Counted() { return m_counters; }

private:
    // MqttLinkEvents
    void OnLinkUp(std::size_t broker_limit) override;
    void OnMqttMessage(MqttMessage& message) override;
    void OnLinkDown(const LinkFailure& failure) override;

    void Connect();
    void EndSession();
    void Reconnect();
    void ReportDown(const LinkFailure& failure);
    void PublishState(const std::string& session);
    void Tick();

    EventLoop& m_loop;
    const Options& m_options;
    const std::string m_channel;
    const std::string m_kind;
    const Topics m_topics;
    const Fatal m_fatal;
    ByteBudget m_budget;
    Counters m_counters;

    std::string m_session;
    SessionNumber m_session_number = 0;
    bool m_has_session = false;
    std::uint64_t m_last_number = 0;
    std::string m_announced_bus;
    std::string m_abandoned_session;  // whose state may still be kept by the broker
    std::size_t m_largest_message = 0;
    std::set<std::string> m_refusals;

    bool m_was_up = false;
    bool m_stopping = false;
    std::string m_reported_failure;
    std::chrono::milliseconds m_reconnect_delay;
    std::chrono::steady_clock::time_point m_refresh_at;
    LoopTimer m_tick{m_loop};
    LoopTimer m_reconnect{m_loop};
    std::unique_ptr<MqttLink> m_link;
};

#endif
