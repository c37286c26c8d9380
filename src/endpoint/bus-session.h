// The endpoint's life on one bus connection: its channel, the repair of the handshake, and the
// watch over partners and daemon. Internal. Lives and dies in the loop's thread.
#ifndef PELMAR_BUS_SESSION_H
#define PELMAR_BUS_SESSION_H

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "async-calls.h"
#include "event-loop.h"
#include "handshake-repair.h"
#include "intake.h"
#include "role-channel.h"

// What a session tells the endpoint, in the loop's thread.
class SessionEvents {
public:
    virtual ~SessionEvents() = default;

    // One partner: found, then perhaps ready, then gone; each once.
    virtual void OnPartnerFound(const std::string& partner) = 0;
    virtual void OnPartnerReady(const std::string& partner) = 0;
    virtual void OnPartnerGone(const std::string& partner) = 0;

    virtual void OnMessage(std::vector<char> data, GDBusMethodInvocation* invocation) = 0;
    virtual void OnNotification(std::vector<char>& data) = 0;
    virtual void OnProblem(const std::string& text) = 0;

    // The connection is closed; the session is to be destroyed, but not from inside the call.
    virtual void OnBusLost() = 0;
};

class BusSession : public std::enable_shared_from_this<BusSession>,
                   private HandshakeRepair::Actions,
                   private ChannelEvents {
public:
    // At most `intake_bytes` of messages wait for OnMessage, OnNotification and the answers.
    BusSession(GDBusConnection* connection, const ChannelRole& role, const std::string& channel,
               std::size_t intake_bytes, EventLoop& loop, AsyncCalls& calls, SessionEvents& events);

    // Leaves the channel: nothing of it stays on the connection.
    ~BusSession() override;
    BusSession(const BusSession&) = delete;
    BusSession& operator=(const BusSession&) = delete;

    // Comes onto the channel. Apart from the constructor, since the callbacks that it installs
    // refer to the shared owner.
    void Open();

private:
    using Clock = HandshakeRepair::Clock;
    using Wiring = HandshakeRepair::Wiring;

    // HandshakeRepair::Actions
    Wiring WiringOf(const std::string& partner) const override;
    bool AnyWired() const override;
    void Pulse(Stage stage) override;
    void Probe(const std::string& partner) override;
    void TakeAckAsSeen(const std::string& partner) override;
    void TakeSynAckAsSeen(const std::string& partner) override;
    void ReportReady(const std::string& partner) override;

    // ChannelEvents
    void OnConnectionReady(bool state, const std::string& partner) override;
    void OnMessage(std::vector<char> data, GDBusMethodInvocation* invocation) override;
    void OnNotification(std::vector<char>& data) override;

    void WatchPulses();
    void WatchMatchRuleLimit();
    void BoundIntake();
    void WatchConnection();
    static void cb_OwnPulse(GDBusConnection* connection, const gchar* sender,
                            const gchar* object_path, const gchar* interface, const gchar* signal,
                            GVariant* parameters, gpointer user_data);
    static void cb_PeerPulse(GDBusConnection* connection, const gchar* sender,
                             const gchar* object_path, const gchar* interface, const gchar* signal,
                             GVariant* parameters, gpointer user_data);
    static gboolean cb_ConnectionBroken(gint descriptor, GIOCondition condition,
                                        gpointer user_data);

    void RearmRepair();
    void RepairWhenSettled();
    void NameRefused(Stage stage);
    void PulseAnswered(Stage stage);
    void AdoptUnknownPartner(const std::string& partner, GVariant* has_owner);
    void PartnerSeen(const std::string& partner);
    void LimitMet(const std::string& reason);
    void PollPartners();
    void EndPartnersNotIn(GVariant* list);
    void AwaitClosed();

    // Callbacks that come when the session has gone do nothing.
    template <typename Function>
    auto WhileAlive(Function function);

    const GObjectPtr<GDBusConnection> m_connection;
    const ChannelRole& m_role;
    const std::string m_channel_name;
    const ChannelNames m_names;
    const std::size_t m_intake_bytes;
    EventLoop& m_loop;
    AsyncCalls& m_calls;
    SessionEvents& m_events;

    HandshakeRepair m_repair;
    LoopTimer m_repair_timer;
    bool m_settling = false;
    LoopTimer m_poll_timer;
    bool m_limit_met = false;
    std::set<Stage> m_refused_names;

    // Partners that were reported found, and those of them that were reported ready.
    std::set<std::string> m_found;
    std::set<std::string> m_ready;

    std::vector<guint> m_subscriptions;
    guint m_filter = 0;
    std::optional<Intake> m_intake;
    SourcePtr m_broken_source;
    std::unique_ptr<RoleChannel> m_channel;
};

#endif
