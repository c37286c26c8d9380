#include "handshake-repair.h"

#include <algorithm>

namespace {

using std::chrono::milliseconds;

// An own pulse that does not show within this window is looked into; the window doubles with each
// attempt up to the largest.
constexpr milliseconds FIRST_WINDOW{16};
constexpr milliseconds LARGEST_WINDOW{512};

// Nothing changes quickly where the bus's policy refuses a name.
constexpr milliseconds REFUSED_WINDOW{10000};

// How long the missing pulse of a peer that repairs its own is given to come by itself.
constexpr milliseconds PEERS_OWN_REPAIR{300};

// How long the ACK of a partner is given that cannot be asked whether its main loop has run.
constexpr milliseconds UNANSWERABLE_GRACE{2000};

// The time within which a service pulses its SYN after it began to listen, on the slowest machine.
constexpr std::chrono::seconds LONGEST_START{10};

// The stock system bus lets a connection have 128 calls unanswered.
constexpr int MOST_PROBES = 16;

milliseconds Window(int attempts)
{
    return std::min(LARGEST_WINDOW, FIRST_WINDOW * (1 << std::min(attempts, 10)));
}

}  // namespace

HandshakeRepair::HandshakeRepair(Role role, Actions& actions, unsigned seed)
    : m_role(role), m_actions(actions), m_random(seed)
{
}

void HandshakeRepair::Require(Stage stage, TimePoint now)
{
    OwnPulse& pulse = PulseOf(stage);
    if (pulse.missing)
        return;
    pulse.missing = true;
    pulse.next_try = now + Jitter(FIRST_WINDOW);
}

void HandshakeRepair::OwnReleased(Stage stage, TimePoint now)
{
    PulseOf(stage).missing = false;
    PulseOf(stage).attempts = 0;
    if (stage == Stage::syn)
        m_syn_shown = now;
    // A partner that hears of this side only now wires it up and waits for an ACK. It will not come
    // by itself where this side has the partner wired up already.
    if (stage == Stage::syn && m_actions.AnyWired())
        Require(Stage::ack, now);
    if (stage == Stage::ack) {
        const std::set<std::string> completing = std::move(m_completing);
        m_completing.clear();
        for (const std::string& partner : completing) {
            if (m_actions.WiringOf(partner) == Wiring::half)
                m_actions.TakeAckAsSeen(partner);
        }
    }
}

void HandshakeRepair::PeerReleased(Stage stage, const std::string& partner, TimePoint now)
{
    switch (stage) {
        case Stage::syn:
            PeersSyn(partner, now);
            break;
        case Stage::syn_ack:
            PeersSynAck(partner, now);
            break;
        case Stage::ack:
            PeersAck(partner, now);
            break;
    }
}

void HandshakeRepair::PeersSyn(const std::string& partner, TimePoint now)
{
    if (m_actions.WiringOf(partner) != Wiring::none)
        return;
    m_half[partner] = {now, now + PEERS_OWN_REPAIR, false};
    Require(Stage::syn_ack, now);
    if (m_role == Role::service)
        return;
    // The service learns of this client by the SYN_ACK, unless it has seen the SYN before.
    PulseOf(Stage::syn).missing = false;
    if (m_syn_shown && now - *m_syn_shown < LONGEST_START)
        m_crossing.insert(partner);
}

void HandshakeRepair::PeersSynAck(const std::string& partner, TimePoint now)
{
    const Wiring wiring = m_actions.WiringOf(partner);
    const bool awaits_ack = m_crossing.erase(partner) != 0;
    if (wiring == Wiring::none || awaits_ack)
        Require(Stage::ack, now);
    // Both sides have answered the other's SYN. A client answers no other SYN than a service's, so
    // it has this service wired up.
    else if (wiring == Wiring::half && m_role == Role::service)
        Complete(partner, now);
}

void HandshakeRepair::PeersAck(const std::string& partner, TimePoint now)
{
    m_half.erase(partner);
    // A client answers no other SYN_ACK than a service's. A service's ACK says nothing: it may be
    // meant for any other client.
    if (m_actions.WiringOf(partner) == Wiring::none && m_role == Role::service)
        m_unknown[partner] = {now, now + PEERS_OWN_REPAIR, false};
}

void HandshakeRepair::ChannelReady(const std::string& partner, TimePoint now)
{
    const bool is_known = !PulseOf(Stage::syn).IsOpen() && !PulseOf(Stage::syn_ack).IsOpen();
    if (m_role == Role::client && !is_known)
        m_unconfirmed[partner] = Waiting{now, now, false};
    else
        m_actions.ReportReady(partner);
}

void HandshakeRepair::PulseAnswered(Stage stage, PulseResult result, TimePoint now)
{
    OwnPulse& pulse = PulseOf(stage);
    pulse.in_flight = false;
    pulse.next_try =
        now + Jitter(result == PulseResult::refused ? REFUSED_WINDOW : Window(pulse.attempts));
}

void HandshakeRepair::ProbeAnswered(const std::string& partner, ProbeResult result, TimePoint now)
{
    --m_probes;
    HalfPartnerAnswered(partner, result, now);
    UnconfirmedPartnerAnswered(partner, result, now);
}

void HandshakeRepair::HalfPartnerAnswered(const std::string& partner, ProbeResult result,
                                          TimePoint now)
{
    const auto found = m_half.find(partner);
    if (found == m_half.end())
        return;
    Waiting& waiting = found->second;
    waiting.probing = false;
    waiting.next_step = now + PEERS_OWN_REPAIR;
    const TimePoint patience = waiting.since + UNANSWERABLE_GRACE;
    if (result == ProbeResult::alive || (result == ProbeResult::unanswerable && now >= patience))
        Complete(partner, now);
    else if (result == ProbeResult::unanswerable)
        waiting.next_step = patience;
}

void HandshakeRepair::UnconfirmedPartnerAnswered(const std::string& partner, ProbeResult result,
                                                 TimePoint now)
{
    const auto found = m_unconfirmed.find(partner);
    if (found == m_unconfirmed.end() || !found->second.probing)
        return;
    found->second.probing = false;
    found->second.next_step = now + PEERS_OWN_REPAIR;
    if (result == ProbeResult::silent || AnyOpen())
        return;
    m_unconfirmed.erase(found);
    m_actions.ReportReady(partner);
}

void HandshakeRepair::PartnerGone(const std::string& partner)
{
    m_half.erase(partner);
    m_unknown.erase(partner);
    m_unconfirmed.erase(partner);
    m_crossing.erase(partner);
    m_completing.erase(partner);
}

std::optional<HandshakeRepair::TimePoint> HandshakeRepair::NextWake() const
{
    std::optional<TimePoint> next;
    const auto consider = [&next](TimePoint time) { next = next ? std::min(*next, time) : time; };
    for (const OwnPulse& pulse : m_pulses) {
        if (pulse.missing && !pulse.in_flight)
            consider(pulse.next_try);
    }
    for (const WaitingPartners* waiting : {&m_half, &m_unknown, &m_unconfirmed}) {
        for (const auto& entry : *waiting) {
            if (!entry.second.probing)
                consider(entry.second.next_step);
        }
    }
    return next;
}

void HandshakeRepair::Wake(TimePoint as_of)
{
    WakeHalfPartners(as_of);
    WakeUnknownPartners(as_of);
    WakeUnconfirmedPartners(as_of);
    WakePulses(as_of);
}

void HandshakeRepair::WakePulses(TimePoint as_of)
{
    for (const Stage stage : ALL_STAGES) {
        OwnPulse& pulse = PulseOf(stage);
        if (!pulse.missing || pulse.in_flight || pulse.next_try > as_of)
            continue;
        pulse.in_flight = true;
        ++pulse.attempts;
        m_actions.Pulse(stage);
    }
}

void HandshakeRepair::WakeHalfPartners(TimePoint as_of)
{
    for (auto entry = m_half.begin(); entry != m_half.end();) {
        if (m_actions.WiringOf(entry->first) != Wiring::half) {
            entry = m_half.erase(entry);
            continue;
        }
        // Its answer proves something only when the SYN_ACK was there before the question.
        if (PulseOf(Stage::syn_ack).missing)
            entry->second.next_step = std::max(entry->second.next_step, as_of + FIRST_WINDOW);
        else
            ProbeWhenDue(entry->first, entry->second, as_of);
        ++entry;
    }
}

void HandshakeRepair::WakeUnconfirmedPartners(TimePoint as_of)
{
    for (auto& [partner, waiting] : m_unconfirmed) {
        if (AnyOpen())
            waiting.next_step = std::max(waiting.next_step, as_of + FIRST_WINDOW);
        else
            ProbeWhenDue(partner, waiting, as_of);
    }
}

void HandshakeRepair::ProbeWhenDue(const std::string& partner, Waiting& waiting, TimePoint as_of)
{
    if (waiting.probing || waiting.next_step > as_of)
        return;
    waiting.next_step = as_of + PEERS_OWN_REPAIR;
    if (m_probes >= MOST_PROBES)
        return;
    waiting.probing = true;
    ++m_probes;
    m_actions.Probe(partner);
}

bool HandshakeRepair::AnyOpen() const
{
    return std::any_of(m_pulses.begin(), m_pulses.end(),
                       [](const OwnPulse& pulse) { return pulse.IsOpen(); });
}

// A client pulses ACK only after it has wired this side up.
void HandshakeRepair::WakeUnknownPartners(TimePoint as_of)
{
    for (auto entry = m_unknown.begin(); entry != m_unknown.end();) {
        if (entry->second.next_step > as_of) {
            ++entry;
            continue;
        }
        if (m_actions.WiringOf(entry->first) == Wiring::none)
            m_actions.TakeSynAckAsSeen(entry->first);
        entry = m_unknown.erase(entry);
    }
}

// The partner gets the ACK that it may be waiting for, and is then taken as ready.
void HandshakeRepair::Complete(const std::string& partner, TimePoint now)
{
    m_completing.insert(partner);
    Require(Stage::ack, now);
}

HandshakeRepair::Clock::duration HandshakeRepair::Jitter(milliseconds window)
{
    std::uniform_int_distribution<Clock::duration::rep> spread(Clock::duration(window).count() / 4,
                                                               Clock::duration(window).count());
    return Clock::duration(spread(m_random));
}
