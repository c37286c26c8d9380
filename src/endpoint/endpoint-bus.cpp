// What comes from the bus, and the handshake: carries out what the state machine wants.

#include <algorithm>
#include <utility>

#include "endpoint-impl.h"
#include "endpoint-tasks.h"

#define PELMAR_LOG_FILE "endpoint-bus.cpp"
#include "log-lines.h"

namespace {

using std::chrono::milliseconds;

// A pulse that did not show is tried again within this window; the window doubles with each attempt
// up to the largest.
constexpr milliseconds FIRST_WINDOW{16};
constexpr milliseconds LARGEST_WINDOW{512};

// Nothing changes quickly where the bus's policy refuses a name.
constexpr milliseconds REFUSED_WINDOW{10000};

// How long the missing pulse of a partner that repairs its own is given to come by itself.
constexpr milliseconds ACK_PATIENCE{300};

// How long a partner is given that cannot be asked whether its main loop has run.
constexpr milliseconds UNANSWERABLE_PATIENCE{2000};

constexpr milliseconds ASK_AGAIN{300};
constexpr milliseconds LISTEN_AGAIN{1000};

// Collisions end sooner, also where a hundred clients start at once; and somebody who pulses is not
// seen twice in a row.
constexpr milliseconds LONGEST_COLLISION{5000};
constexpr int SEEN_HOLDING = 4;

// Within this a partner whose end the bus does not report is found.
constexpr milliseconds POLL_INTERVAL{4000};

constexpr guint32 DO_NOT_QUEUE = 4;
constexpr guint32 NAME_RELEASED = 1;

constexpr std::size_t MOST_QUESTIONS_OF_STRANGERS = 64;
constexpr std::size_t MOST_QUESTIONS_OF_ONE = 4;

constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";

bool IsError(GDBusMessage* answer, const char* name)
{
    return answer != nullptr && bus_message::ErrorName(answer) == name;
}

}  // namespace

// ---- What comes ----------------------------------------------------------------------------

GDBusMessage* PelmarEndpoint::Impl::cb_Message(GDBusConnection* connection, GDBusMessage* message,
                                               gboolean incoming, gpointer user_data)
{
    if (incoming == FALSE)
        return message;
    const auto self = static_cast<const Access*>(user_data)->Lock();
    const bool opens = bus_message::HasMember(message, DIRECT_PATH_INTERFACE, "Open");
    // Nobody asked for others, and a message may wait for long.
    if (!opens)
        bus_message::DropDescriptors(message);
    const bool is_taken = self != nullptr && self->TakeMessage(connection, message);
    bus_message::DropDescriptors(message);
    if (!is_taken)
        return message;
    g_object_unref(message);
    return nullptr;
}

bool PelmarEndpoint::Impl::TakeMessage(GDBusConnection* connection, GDBusMessage* message)
{
    const Lock lock(m_mutex);
    if (connection != m_connection.get() || g_dbus_message_get_sender(message) == nullptr)
        return false;
    switch (g_dbus_message_get_message_type(message)) {
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
        case G_DBUS_MESSAGE_TYPE_ERROR:
            return TakeAnswer(message);
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            return TakeSignal(message);
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            return TakeCall(message);
        default:
            return false;
    }
}

bool PelmarEndpoint::Impl::TakeAnswer(GDBusMessage* answer)
{
    const auto found = m_calls.find(g_dbus_message_get_reply_serial(answer));
    if (found == m_calls.end())
        return false;
    // A bus may let others answer, too.
    if (found->second.from != g_dbus_message_get_sender(answer) &&
        !bus_message::IsFromDaemon(answer))
        return true;
    const OnAnswer on_answer = std::move(found->second.on_answer);
    m_calls.erase(found);
    on_answer(answer);
    return true;
}

bool PelmarEndpoint::Impl::TakeSignal(GDBusMessage* signal)
{
    if (bus_message::IsFromDaemon(signal)) {
        if (bus_message::HasMember(signal, "org.freedesktop.DBus", "NameOwnerChanged"))
            OwnerChanged(signal);
        return true;
    }
    if (m_object_path == g_dbus_message_get_path(signal) &&
        g_strcmp0(g_dbus_message_get_interface(signal), CHANNEL_INTERFACE) == 0 &&
        bus_message::HasBody(signal, "(ay)"))
        TrafficCame(signal);
    return true;
}

// What is not taken here GIO answers: introspection, unknown methods, wrong arguments.
bool PelmarEndpoint::Impl::TakeCall(GDBusMessage* call)
{
    if (m_object_path != g_dbus_message_get_path(call))
        return false;
    if (bus_message::HasMember(call, CHANNEL_INTERFACE, CHANNEL_METHOD) &&
        bus_message::HasBody(call, "(ay)")) {
        TrafficCame(call);
        return true;
    }
    if (bus_message::HasMember(call, DIRECT_PATH_INTERFACE, "Open")) {
        TakeOpen(call);
        return true;
    }
    if (bus_message::HasMember(call, DIRECT_PATH_INTERFACE, "Switch")) {
        TakeSwitch(g_dbus_message_get_sender(call));
        return true;
    }
    if (bus_message::HasMember(call, DIRECT_PATH_INTERFACE, "Invite")) {
        TakeInvitation(FindPeer(g_dbus_message_get_sender(call)));
        return true;
    }
    if (!bus_message::HasMember(call, PROPERTIES, "GetAll") || !bus_message::HasBody(call, "(s)"))
        return false;
    const std::string interface = bus_message::FirstString(call);
    if (interface == CHANNEL_INTERFACE)
        TakeQuestion(call);
    else if (interface == DIRECT_PATH_INTERFACE)
        SendNow(bus_message::Answer(bus_message::CallId(call), DirectPartners()).get());
    else
        return false;
    return true;
}

// It is answered when all that the partner sent before has been dealt with.
void PelmarEndpoint::Impl::TakeQuestion(GDBusMessage* message)
{
    const bus_message::CallId question(message);
    if (!m_stopped)
        Carry(m_handshake->Asked(question.caller));
    const PeerPtr peer = FindPeer(question.caller);
    if (!m_stopped && m_handshake->WordFor(question.caller) != Handshake::Word::yes) {
        AnswerStranger(question);
    } else if (peer == nullptr || peer->accepted == peer->handled) {
        AnswerQuestion(question);
    } else if (peer->questions.size() < MOST_QUESTIONS_OF_ONE) {
        peer->questions.emplace_back(peer->accepted, question);
    } else {
        RefuseQuestion(question);
    }
}

// For whoever looks at the bus: with whom this endpoint goes past it.
GVariant* PelmarEndpoint::Impl::DirectPartners() const
{
    GVariantBuilder names;
    g_variant_builder_init(&names, G_VARIANT_TYPE_STRING_ARRAY);
    for (const auto& entry : m_direct_peers) {
        if (entry.second->partner->direct)
            g_variant_builder_add(&names, "s", entry.second->Name().c_str());
    }
    GVariantBuilder all;
    g_variant_builder_init(&all, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&all, "{sv}", "Partners", g_variant_builder_end(&names));
    return g_variant_new("(@a{sv})", g_variant_builder_end(&all));
}

void PelmarEndpoint::Impl::AnswerQuestion(const bus_message::CallId& question)
{
    SendNow(bus_message::Answer(question, WordOnDirectPath(question.caller)).get());
}

void PelmarEndpoint::Impl::RefuseQuestion(const bus_message::CallId& question)
{
    SendNow(bus_message::Error(question, bus_error::LIMITS_EXCEEDED,
                               "too many questions wait for this endpoint")
                .get());
}

void PelmarEndpoint::Impl::AnswerStranger(const bus_message::CallId& question)
{
    switch (m_handshake->WordFor(question.caller)) {
        case Handshake::Word::yes:
            AnswerQuestion(question);
            return;
        case Handshake::Word::unknown:
            SendNow(bus_message::Answer(question, bus_message::UnknownPartner()).get());
            return;
        case Handshake::Word::later:
            if (m_strangers_questions.size() < MOST_QUESTIONS_OF_STRANGERS)
                m_strangers_questions.push_back(question);
            else
                RefuseQuestion(question);
            return;
    }
}

void PelmarEndpoint::Impl::AnswerStrangers()
{
    for (const bus_message::CallId& question : std::exchange(m_strangers_questions, {}))
        AnswerStranger(question);
}

// A name of the other side was released: a pulse. A unique name was: the end of a partner.
void PelmarEndpoint::Impl::OwnerChanged(GDBusMessage* signal)
{
    const auto change = bus_message::ReadOwnerChange(signal);
    if (!change || !change->new_owner.empty() || change->old_owner.empty())
        return;
    if (change->name == change->old_owner) {
        EndPeer(change->name);
        m_never_direct.erase(change->name);
        return;
    }
    const auto stage = std::find(m_peer_names.begin(), m_peer_names.end(), change->name);
    if (stage != m_peer_names.end() && change->old_owner != m_name && !m_stopped)
        Carry(m_handshake->PulseSeen(
            ALL_STAGES[static_cast<std::size_t>(stage - m_peer_names.begin())], change->old_owner));
}

// ---- What the state machine wants ----------------------------------------------------------

void PelmarEndpoint::Impl::Carry(const Handshake::Actions& actions)
{
    using Kind = Handshake::Action::Kind;
    for (const Handshake::Action& action : actions) {
        switch (action.kind) {
            case Kind::pulse:
                Pulse(action.stage);
                break;
            case Kind::retry:
                RetryPulse(action.stage);
                break;
            case Kind::retry_refused:
                After(REFUSED_WINDOW, [this, stage = action.stage, session = m_session] {
                    if (session == m_session)
                        Carry(m_handshake->Retry(stage));
                });
                break;
            case Kind::meet:
                Meet(action.partner);
                break;
            case Kind::ask:
                Ask(action.partner);
                break;
            case Kind::wait_for_ack:
                SetTimer(action.partner, ACK_PATIENCE);
                break;
            case Kind::wait_patiently:
                SetTimer(action.partner, UNANSWERABLE_PATIENCE);
                break;
            case Kind::wait_to_ask:
                SetTimer(action.partner, ASK_AGAIN);
                break;
            case Kind::tell_ready:
                TellReady(action.partner);
                break;
            case Kind::tell_lost:
                TellLost(action.partner);
                break;
            case Kind::answer_all:
                AnswerStrangers();
                break;
            case Kind::stop_listening:
                TellDaemon(
                    "RemoveMatch",
                    g_variant_new(
                        "(s)",
                        bus_message::OwnerChangeRule(m_peer_names[IndexOf(action.stage)]).c_str()));
                break;
        }
    }
}

// A rule that was refused may have let pulses pass unheard.
void PelmarEndpoint::Impl::ListenTo(Stage stage, bool is_first_try)
{
    const std::string rule = bus_message::OwnerChangeRule(m_peer_names[IndexOf(stage)]);
    CallDaemon("AddMatch", g_variant_new("(s)", rule.c_str()),
               [this, stage, is_first_try, session = m_session](GDBusMessage* answer) {
                   if (is_first_try && --m_first_rules == 0)
                       IsThere();
                   if (bus_message::ErrorName(answer).empty()) {
                       if (!is_first_try)
                           Carry(m_handshake->Announce());
                       return;
                   }
                   RuleRefused(answer);
                   After(LISTEN_AGAIN, [this, stage, session] {
                       const bool is_of_interest =
                           session == m_session &&
                           (m_role == Role::service || stage == Stage::syn ||
                            m_handshake->IsListeningToSynAck());
                       if (is_of_interest)
                           ListenTo(stage, false);
                   });
               });
}

void PelmarEndpoint::Impl::RuleRefused(GDBusMessage* answer)
{
    Report(Problem::rule_limit, "the bus daemon refused a match rule (" +
                                    bus_message::ErrorText(answer) +
                                    "): partners and their ends are noticed late; raise "
                                    "max_match_rules_per_connection in the bus's configuration");
}

// Both calls are on their way before the first is answered: the name is held for the shortest time,
// and it is released whatever became of the request.
void PelmarEndpoint::Impl::Pulse(Stage stage)
{
    const char* name = m_own_names[IndexOf(stage)].c_str();
    PELMAR_DEBUG("Pulse of %s\n\n", PELMAR_AT(__func__), name);
    const auto refused = std::make_shared<bool>(false);
    CallDaemon(
        "RequestName", g_variant_new("(su)", name, DO_NOT_QUEUE),
        [refused](GDBusMessage* answer) { *refused = IsError(answer, bus_error::ACCESS_DENIED); });
    CallDaemon("ReleaseName", g_variant_new("(s)", name),
               [this, stage, refused](GDBusMessage* answer) {
                   PulseEnded(stage, *refused, bus_message::Number(answer) == NAME_RELEASED);
               });
}

void PelmarEndpoint::Impl::PulseEnded(Stage stage, bool refused, bool shown)
{
    OwnPulse& pulse = m_pulses[IndexOf(stage)];
    const std::string& name = m_own_names[IndexOf(stage)];
    if (shown) {
        pulse = {};
        ReportOver(Problem::name_taken, name);
        ReportOver(Problem::name_refused, name);
    } else if (refused) {
        Report(Problem::name_refused,
               "the bus does not let this process own " + name +
                   ": install the policy of the channel for this process's user",
               name);
    } else {
        if (!pulse.missing_since)
            pulse.missing_since = Clock::now();
        if (Clock::now() - *pulse.missing_since >= LONGEST_COLLISION)
            LookForHolder(stage);
    }
    using Result = Handshake::PulseResult;
    Carry(m_handshake->PulseEnded(
        stage, shown ? Result::shown : (refused ? Result::refused : Result::missed)));
}

void PelmarEndpoint::Impl::RetryPulse(Stage stage)
{
    OwnPulse& pulse = m_pulses[IndexOf(stage)];
    const milliseconds window =
        std::min(LARGEST_WINDOW, FIRST_WINDOW * (1 << std::min(pulse.attempts, 10)));
    ++pulse.attempts;
    using Duration = Clock::duration;
    std::uniform_int_distribution<Duration::rep> spread(Duration(window).count() / 4,
                                                        Duration(window).count());
    At(Clock::now() + Duration(spread(m_random)), [this, stage, session = m_session] {
        if (session == m_session)
            Carry(m_handshake->Retry(stage));
    });
}

void PelmarEndpoint::Impl::LookForHolder(Stage stage)
{
    const std::string name = m_own_names[IndexOf(stage)];
    CallDaemon("GetNameOwner", g_variant_new("(s)", name.c_str()),
               [this, stage, name](GDBusMessage* answer) {
                   OwnPulse& pulse = m_pulses[IndexOf(stage)];
                   const bool is_held = bus_message::ErrorName(answer).empty();
                   const std::string holder = is_held ? bus_message::FirstString(answer) : "";
                   if (holder != std::exchange(pulse.holder, holder))
                       pulse.holder_seen = 0;
                   if (is_held && ++pulse.holder_seen == SEEN_HOLDING)
                       Report(
                           Problem::name_taken,
                           name + " is held by " + holder +
                               ", and should be held for a moment only: end that process, or see "
                               "to it that the bus's policy lets nobody else own the name");
               });
}

// ---- Partners ------------------------------------------------------------------------------

void PelmarEndpoint::Impl::Meet(const std::string& name)
{
    const PeerPtr peer = PeerNamed(name);
    if (!std::exchange(peer->is_watched, true))
        CallDaemon("AddMatch", g_variant_new("(s)", bus_message::OwnerChangeRule(name).c_str()),
                   [this](GDBusMessage* answer) {
                       if (bus_message::ErrorName(answer).empty())
                           return;
                       RuleRefused(answer);
                       if (!std::exchange(m_rules_are_short, true))
                           PollNames();
                   });
    // The answer comes after the rule is in force, so that its end is noticed either way.
    LearnCredentials(peer);
}

void PelmarEndpoint::Impl::LearnCredentials(const PeerPtr& peer)
{
    CallDaemon("GetConnectionCredentials", g_variant_new("(s)", peer->Name().c_str()),
               [this, peer](GDBusMessage* answer) { CredentialsCame(peer, answer); });
}

void PelmarEndpoint::Impl::CredentialsCame(const PeerPtr& peer, GDBusMessage* answer)
{
    if (peer->gone)
        return;
    if (IsError(answer, bus_error::NAME_HAS_NO_OWNER)) {
        EndPeer(peer->Name());
        return;
    }
    if (!std::exchange(peer->has_credentials, true)) {
        const bus_message::Credentials credentials = bus_message::ReadCredentials(answer);
        peer->partner->uid = credentials.uid;
        peer->partner->pid = credentials.pid;
    }
    if (m_stopped)
        return;
    if (peer->is_watched)
        Carry(m_handshake->Met(peer->Name()));
    DeliverHeld(peer);
}

void PelmarEndpoint::Impl::Ask(const std::string& name)
{
    const PeerPtr peer = FindPeer(name);
    if (peer->asking)
        peer->ask_again = true;
    else if (peer->is_unaskable)
        Carry(m_handshake->Answered(name, Handshake::Answer::never));
    else if (MayAsk())
        AskPeer(peer);
    else
        Carry(m_handshake->Answered(name, Handshake::Answer::not_now));
}

void PelmarEndpoint::Impl::SetTimer(const std::string& name, milliseconds delay)
{
    const PeerPtr peer = FindPeer(name);
    m_deadlines.Remove(peer->timer);
    peer->timer = After(delay, [this, peer] {
        if (!peer->gone && !m_stopped)
            Carry(m_handshake->TimeOver(peer->Name()));
    });
}

void PelmarEndpoint::Impl::TellReady(const std::string& name)
{
    const PeerPtr peer = FindPeer(name);
    PELMAR_DEBUG("Partner %s is ready\n\n", PELMAR_AT(__func__), name.c_str());
    m_deadlines.Remove(peer->timer);
    peer->partner->ready = true;
    m_ready.push_back(peer);
    m_changed.notify_all();
    Tell("OnReady", m_handlers.ready, Partner(peer->partner));
    DeliverHeld(peer);
    TryDirectPath(peer);
    AskForRoom(peer);
    AcceptDirectPath(peer);
}

void PelmarEndpoint::Impl::TellLost(const std::string& name)
{
    const PeerPtr peer = FindPeer(name);
    PELMAR_DEBUG("Partner %s is lost\n\n", PELMAR_AT(__func__), name.c_str());
    peer->partner->ready = false;
    m_ready.erase(std::find(m_ready.begin(), m_ready.end(), peer));
    FinishAll(*peer, Status::partner_lost);
    Tell("OnLost", m_handlers.lost, Partner(peer->partner));
}

void PelmarEndpoint::Impl::EndPeer(const std::string& name)
{
    const PeerPtr peer = FindPeer(name);
    if (peer == nullptr)
        return;
    DrainDirectPath(peer);
    Carry(m_handshake->Gone(name));
    FinishAll(*peer, Status::partner_lost);
    m_deadlines.Remove(peer->timer);
    if (peer->is_watched)
        TellDaemon("RemoveMatch", g_variant_new("(s)", bus_message::OwnerChangeRule(name).c_str()));
    Forget(*peer);
    m_peers.erase(name);
    PumpBacklog();
    m_changed.notify_all();
}

// A reply that the application keeps may keep the rest of it for long.
void PelmarEndpoint::Impl::Forget(Peer& peer)
{
    for (const MessagePtr& message : peer.held)
        LetGo(peer, bus_message::Cost(message.get()));
    peer.held.clear();
    peer.questions.clear();
    IsThrough(peer);
    CloseDirectPath(peer);
    peer.window.DealtWith(peer.window.Position());
    ForgetDealtWith(peer);
    peer.gone = true;
}

// Where a rule was refused, the daemon's list of names tells who is gone.
void PelmarEndpoint::Impl::PollNames()
{
    CallDaemon("ListNames", nullptr, [this, session = m_session](GDBusMessage* answer) {
        EndPeersNotIn(answer);
        After(POLL_INTERVAL, [this, session] {
            if (session == m_session && !m_stopped)
                PollNames();
        });
    });
}

void PelmarEndpoint::Impl::EndPeersNotIn(GDBusMessage* names)
{
    if (!bus_message::HasBody(names, "(as)"))
        return;
    std::set<std::string> present;
    GVariantIter* iterator = nullptr;
    g_variant_get(g_dbus_message_get_body(names), "(as)", &iterator);
    const gchar* name = nullptr;
    while (g_variant_iter_next(iterator, "&s", &name) != FALSE)
        present.insert(name);
    g_variant_iter_free(iterator);
    std::vector<std::string> gone;
    for (const auto& entry : m_peers) {
        if (present.count(entry.first) == 0)
            gone.push_back(entry.first);
    }
    for (const std::string& peer : gone)
        EndPeer(peer);
}

// ---- What is sent --------------------------------------------------------------------------

// The serial, 0 when the connection is closed.
guint32 PelmarEndpoint::Impl::SendNow(GDBusMessage* message, OnAnswer on_answer)
{
    volatile guint32 used = 0;
    if (m_connection == nullptr ||
        g_dbus_connection_send_message(m_connection.get(), message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       &used, nullptr) == FALSE)
        return 0;
    const guint32 serial = used;
    if (on_answer)
        m_calls[serial] = {g_dbus_message_get_destination(message), std::move(on_answer)};
    return serial;
}

void PelmarEndpoint::Impl::CallDaemon(const char* method, GVariant* parameters, OnAnswer on_answer)
{
    SendNow(bus_message::ToDaemon(method, parameters).get(), std::move(on_answer));
}

// Without an answer.
void PelmarEndpoint::Impl::TellDaemon(const char* method, GVariant* parameters)
{
    const MessagePtr message = bus_message::ToDaemon(method, parameters);
    g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    SendNow(message.get());
}
