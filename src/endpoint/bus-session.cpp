#include "bus-session.h"

#include <glib-unix.h>

#include <algorithm>
#include <random>
#include <utility>

#define PELMAR_LOG_FILE "bus-session.cpp"
#include "log-lines.h"

namespace {

using std::chrono::milliseconds;

// Within this a partner whose end the bus does not report is found, twice over.
constexpr milliseconds POLL_INTERVAL{4000};

// A partner's main loop that takes longer is asked again.
constexpr int PROBE_TIMEOUT_MS = 2000;

constexpr guint32 DO_NOT_QUEUE = 4;

// What the filter needs. It runs in GIO's thread and may still do so when the session has gone.
struct LimitWatch {
    ContextPtr context;
    std::function<void(const std::string&)> refused;

    // The calls that ask for a match rule; GIO ignores their answers. For GIO's thread alone.
    std::set<guint32> asked;
};

bool IsFromDaemon(GDBusMessage* message)
{
    return g_strcmp0(g_dbus_message_get_sender(message), "org.freedesktop.DBus") == 0;
}

GDBusMessage* cb_Message(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming,
                         gpointer user_data)
{
    auto* watch = static_cast<LimitWatch*>(user_data);
    if (incoming == FALSE) {
        if (g_strcmp0(g_dbus_message_get_member(message), "AddMatch") == 0)
            watch->asked.insert(g_dbus_message_get_serial(message));
        return message;
    }
    if (!IsFromDaemon(message) || watch->asked.erase(g_dbus_message_get_reply_serial(message)) == 0)
        return message;
    const gchar* error = g_dbus_message_get_error_name(message);
    if (g_strcmp0(error, "org.freedesktop.DBus.Error.LimitsExceeded") != 0)
        return message;
    const gchar* text = g_dbus_message_get_arg0(message);
    PostTo(watch->context.get(),
           [refused = watch->refused,
            reason = std::string(text != nullptr ? text : "no reason given")] { refused(reason); });
    return message;
}

Stage StageOf(const std::array<std::string, ALL_STAGES.size()>& names, const char* name)
{
    return static_cast<Stage>(std::find(names.begin(), names.end(), name) - names.begin());
}

bool Is(const GError* error, GDBusError code)
{
    return error != nullptr && g_error_matches(error, G_DBUS_ERROR, code) != FALSE;
}

HandshakeRepair::ProbeResult ProbeResultOf(const GError* error)
{
    if (error == nullptr)
        return HandshakeRepair::ProbeResult::alive;
    const bool silent = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) != FALSE ||
                        Is(error, G_DBUS_ERROR_NO_REPLY) || Is(error, G_DBUS_ERROR_TIMEOUT);
    return silent ? HandshakeRepair::ProbeResult::silent
                  : HandshakeRepair::ProbeResult::unanswerable;
}

}  // namespace

BusSession::BusSession(GDBusConnection* connection, const ChannelRole& role,
                       const std::string& channel, std::size_t intake_bytes, EventLoop& loop,
                       AsyncCalls& calls, SessionEvents& events)
    : m_connection(NewReference(connection)),
      m_role(role),
      m_channel_name(channel),
      m_names(role.names_of(channel)),
      m_intake_bytes(intake_bytes),
      m_loop(loop),
      m_calls(calls),
      m_events(events),
      m_repair(role.role, *this, std::random_device{}()),
      m_repair_timer(loop),
      m_poll_timer(loop)
{
}

BusSession::~BusSession()
{
    for (const guint id : m_subscriptions)
        g_dbus_connection_signal_unsubscribe(m_connection.get(), id);
    if (m_filter != 0)
        g_dbus_connection_remove_filter(m_connection.get(), m_filter);
}

void BusSession::Open()
{
    WatchMatchRuleLimit();
    BoundIntake();
    WatchPulses();
    WatchConnection();
    m_repair.Require(Stage::syn, Clock::now());
    m_channel = m_role.open(m_channel_name, *this);
    if (!m_channel->HasObject())
        m_events.OnProblem("this process has another channel named " + m_channel_name +
                           ": partners' requests to this one fail; give each its own name");
    RearmRepair();
}

template <typename Function>
auto BusSession::WhileAlive(Function function)
{
    return [weak = weak_from_this(), function](auto&&... arguments) {
        if (const std::shared_ptr<BusSession> self = weak.lock())
            function(*self, arguments...);
    };
}

// ---- What is watched -----------------------------------------------------------------------

void BusSession::WatchPulses()
{
    GDBusConnection* connection = m_connection.get();
    const char* const bus = "org.freedesktop.DBus";
    const char* const path = "/org/freedesktop/DBus";
    // The daemon tells an owner of its loss together with everybody else, and without a match rule.
    for (const std::string& name : m_names.own)
        m_subscriptions.push_back(g_dbus_connection_signal_subscribe(
            connection, bus, bus, "NameLost", path, name.c_str(), G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE,
            cb_OwnPulse, this, nullptr));
    // Before the channel subscribes to the same: so this is called before the channel's handler.
    for (const std::string& name : m_names.peer)
        m_subscriptions.push_back(g_dbus_connection_signal_subscribe(
            connection, bus, bus, "NameOwnerChanged", path, name.c_str(), G_DBUS_SIGNAL_FLAGS_NONE,
            cb_PeerPulse, this, nullptr));
}

void BusSession::WatchMatchRuleLimit()
{
    auto watch = std::make_unique<LimitWatch>();
    watch->context.reset(g_main_context_ref(m_loop.Context()));
    watch->refused =
        WhileAlive([](BusSession& self, const std::string& reason) { self.LimitMet(reason); });
    m_filter =
        g_dbus_connection_add_filter(m_connection.get(), cb_Message, watch.release(),
                                     [](gpointer held) { delete static_cast<LimitWatch*>(held); });
}

void BusSession::BoundIntake()
{
    const auto report = WhileAlive([](BusSession& self) {
        self.m_events.OnProblem("messages come in faster than the handlers deal with them: over " +
                                std::to_string(self.m_intake_bytes) +
                                " bytes they are refused; make the handlers faster or "
                                "Options::intake_bytes larger, or find out who sends so much");
    });
    const std::shared_ptr<GMainContext> context(g_main_context_ref(m_loop.Context()),
                                                g_main_context_unref);
    m_intake.emplace(m_connection.get(), m_names.object_path, m_intake_bytes,
                     [context, report] { PostTo(context.get(), report); });
}

// The connection's own signal would come in the context of whoever made the connection first. All
// the transports that GIO knows are sockets.
void BusSession::WatchConnection()
{
    GIOStream* stream = g_dbus_connection_get_stream(m_connection.get());
    GSocket* socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream));
    m_broken_source.reset(g_unix_fd_source_new(g_socket_get_fd(socket), G_IO_HUP));
    g_source_set_callback(m_broken_source.get(), G_SOURCE_FUNC(cb_ConnectionBroken), this, nullptr);
    g_source_attach(m_broken_source.get(), m_loop.Context());
}

void BusSession::cb_OwnPulse(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                             const gchar* /*object_path*/, const gchar* /*interface*/,
                             const gchar* /*signal*/, GVariant* parameters, gpointer user_data)
{
    auto& self = *static_cast<BusSession*>(user_data);
    const gchar* name = nullptr;
    g_variant_get(parameters, "(&s)", &name);
    const Stage stage = StageOf(self.m_names.own, name);
    self.m_refused_names.erase(stage);
    self.m_repair.OwnReleased(stage, Clock::now());
    self.RearmRepair();
}

void BusSession::cb_PeerPulse(GDBusConnection* connection, const gchar* /*sender*/,
                              const gchar* /*object_path*/, const gchar* /*interface*/,
                              const gchar* /*signal*/, GVariant* parameters, gpointer user_data)
{
    auto& self = *static_cast<BusSession*>(user_data);
    const gchar* name = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, &old_owner, &new_owner);
    const std::string partner(old_owner);
    if (*new_owner != '\0' || partner == g_dbus_connection_get_unique_name(connection))
        return;
    const Stage stage = StageOf(self.m_names.peer, name);
    if (stage != Stage::ack)
        self.PartnerSeen(partner);
    self.m_repair.PeerReleased(stage, partner, Clock::now());
    self.RearmRepair();
}

// ---- The channel's news --------------------------------------------------------------------

void BusSession::OnConnectionReady(bool state, const std::string& partner)
{
    if (state) {
        PartnerSeen(partner);
        m_repair.ChannelReady(partner, Clock::now());
    } else {
        m_repair.PartnerGone(partner);
        m_ready.erase(partner);
        if (m_found.erase(partner) != 0)
            m_events.OnPartnerGone(partner);
    }
    RearmRepair();
}

void BusSession::PartnerSeen(const std::string& partner)
{
    if (m_found.insert(partner).second)
        m_events.OnPartnerFound(partner);
}

void BusSession::ReportReady(const std::string& partner)
{
    if (m_ready.insert(partner).second)
        m_events.OnPartnerReady(partner);
}

void BusSession::OnMessage(std::vector<char> data, GDBusMethodInvocation* invocation)
{
    m_events.OnMessage(std::move(data), invocation);
}

void BusSession::OnNotification(std::vector<char>& data)
{
    m_events.OnNotification(data);
}

// ---- Repair --------------------------------------------------------------------------------

BusSession::Wiring BusSession::WiringOf(const std::string& partner) const
{
    return m_channel->WiringOf(partner);
}

bool BusSession::AnyWired() const
{
    return !m_channel->WiredPartners().empty();
}

void BusSession::RearmRepair()
{
    if (m_settling)
        return;
    const auto next = m_repair.NextWake();
    if (!next) {
        m_repair_timer.Disarm();
        return;
    }
    const auto delay = std::chrono::ceil<milliseconds>(*next - Clock::now());
    m_repair_timer.Arm(delay, [this] { RepairWhenSettled(); });
}

// What was on its way when the timer fired is dispatched within one round of the loop, the pulses
// that the channel makes on it show within a second one.
void BusSession::RepairWhenSettled()
{
    m_settling = true;
    const auto wake = WhileAlive([as_of = Clock::now()](BusSession& self) {
        self.m_settling = false;
        self.m_repair.Wake(as_of);
        self.RearmRepair();
    });
    m_loop.Post(WhileAlive([wake](BusSession& self) { self.m_loop.Post(wake); }));
}

// Both calls are on their way before the first is answered: the name is held for the shortest time,
// and it is released whatever became of the request.
void BusSession::Pulse(Stage stage)
{
    const char* name = m_names.own[IndexOf(stage)].c_str();
    PELMAR_DEBUG("Pulse of %s again\n\n", PELMAR_AT(__func__), name);
    m_calls.Start(m_connection.get(), DaemonMethod("RequestName"),
                  g_variant_new("(su)", name, DO_NOT_QUEUE), "(u)", AsyncCalls::DEFAULT_TIMEOUT,
                  WhileAlive([stage](BusSession& self, GVariant* /*reply*/, const GError* error) {
                      if (Is(error, G_DBUS_ERROR_ACCESS_DENIED))
                          self.NameRefused(stage);
                  }));
    // What the daemon has to say of the loss of the name comes before its answer to the release.
    m_calls.Start(m_connection.get(), DaemonMethod("ReleaseName"), g_variant_new("(s)", name),
                  "(u)", AsyncCalls::DEFAULT_TIMEOUT,
                  WhileAlive([stage](BusSession& self, GVariant* /*reply*/,
                                     const GError* /*error*/) { self.PulseAnswered(stage); }));
}

void BusSession::NameRefused(Stage stage)
{
    if (m_refused_names.insert(stage).second)
        m_events.OnProblem("the bus does not let this process own " + m_names.own[IndexOf(stage)] +
                           ": install the policy of the channel for this process's user");
}

void BusSession::PulseAnswered(Stage stage)
{
    const bool refused = m_refused_names.count(stage) != 0;
    m_repair.PulseAnswered(
        stage, refused ? HandshakeRepair::PulseResult::refused : HandshakeRepair::PulseResult::done,
        Clock::now());
    RearmRepair();
}

// GIO answers this by itself, but in the partner's main loop: when the answer is there, the partner
// has dealt with the pulses that it saw before.
void BusSession::Probe(const std::string& partner)
{
    const BusMethod method{partner.c_str(), m_names.object_path.c_str(),
                           "org.freedesktop.DBus.Properties", "GetAll"};
    m_calls.Start(m_connection.get(), method, g_variant_new("(s)", m_names.interface.c_str()),
                  nullptr, PROBE_TIMEOUT_MS,
                  WhileAlive([partner](BusSession& self, GVariant* /*reply*/, const GError* error) {
                      self.m_repair.ProbeAnswered(partner, ProbeResultOf(error), Clock::now());
                      self.RearmRepair();
                  }));
}

void BusSession::TakeAckAsSeen(const std::string& partner)
{
    PELMAR_DEBUG("ACK of %s is missing, taken as seen\n\n", PELMAR_AT(__func__), partner.c_str());
    m_channel->TakePulseAsSeen(Stage::ack, partner);
}

void BusSession::TakeSynAckAsSeen(const std::string& partner)
{
    m_calls.Start(m_connection.get(), DaemonMethod("NameHasOwner"),
                  g_variant_new("(s)", partner.c_str()), "(b)", AsyncCalls::DEFAULT_TIMEOUT,
                  WhileAlive([partner](BusSession& self, GVariant* reply, const GError* /*error*/) {
                      if (reply != nullptr && self.WiringOf(partner) == Wiring::none)
                          self.AdoptUnknownPartner(partner, reply);
                  }));
}

void BusSession::AdoptUnknownPartner(const std::string& partner, GVariant* has_owner)
{
    gboolean alive = FALSE;
    g_variant_get(has_owner, "(b)", &alive);
    if (alive == FALSE) {
        m_channel->TakeAsVanished(partner);
        return;
    }
    PELMAR_DEBUG("SYN of %s is missing, SYN_ACK taken as seen\n\n", PELMAR_AT(__func__),
                 partner.c_str());
    PartnerSeen(partner);
    m_repair.Require(Stage::ack, Clock::now());
    m_channel->TakePulseAsSeen(Stage::syn_ack, partner);
    RearmRepair();
}

// ---- Partners whose end the bus does not report --------------------------------------------

void BusSession::LimitMet(const std::string& reason)
{
    if (m_limit_met)
        return;
    m_limit_met = true;
    m_events.OnProblem("the bus daemon refused a match rule (" + reason +
                       "): the end of some partners is noticed only within seconds; raise "
                       "max_match_rules_per_connection in the bus's configuration");
    PollPartners();
}

void BusSession::PollPartners()
{
    m_calls.Start(m_connection.get(), DaemonMethod("ListNames"), nullptr, "(as)",
                  AsyncCalls::DEFAULT_TIMEOUT,
                  WhileAlive([](BusSession& self, GVariant* reply, const GError* /*error*/) {
                      if (reply != nullptr)
                          self.EndPartnersNotIn(reply);
                      self.m_poll_timer.Arm(POLL_INTERVAL, [&self] { self.PollPartners(); });
                  }));
}

void BusSession::EndPartnersNotIn(GVariant* list)
{
    GVariantIter* names = nullptr;
    g_variant_get(list, "(as)", &names);
    std::set<std::string> present;
    const gchar* name = nullptr;
    while (g_variant_iter_next(names, "&s", &name) != FALSE)
        present.insert(name);
    g_variant_iter_free(names);
    for (const std::string& partner : m_channel->WiredPartners()) {
        if (present.count(partner) == 0)
            m_channel->TakeAsVanished(partner);
    }
}

// ---- The end of the connection -------------------------------------------------------------

gboolean BusSession::cb_ConnectionBroken(gint /*descriptor*/, GIOCondition /*condition*/,
                                         gpointer user_data)
{
    static_cast<BusSession*>(user_data)->AwaitClosed();
    return G_SOURCE_REMOVE;
}

// GIO's thread may not have noticed yet; the call fails when it has.
void BusSession::AwaitClosed()
{
    m_calls.Start(m_connection.get(), DaemonMethod("GetId"), nullptr, nullptr,
                  AsyncCalls::NO_TIMEOUT,
                  WhileAlive([](BusSession& self, GVariant* /*reply*/, const GError* /*error*/) {
                      if (g_dbus_connection_is_closed(self.m_connection.get()) != FALSE)
                          self.m_events.OnBusLost();
                  }));
}
