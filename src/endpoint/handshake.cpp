#include "handshake.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

using Kind = Handshake::Action::Kind;

Handshake::Actions Handshake::Announce()
{
    m_syn_needed = true;
    m_syn_shown = false;
    return Next({});
}

// ---- What the other side pulses ------------------------------------------------------------

Handshake::Actions Handshake::PulseSeen(Stage stage, const std::string& partner)
{
    Actions actions;
    if (m_role == ChannelRole::client)
        ServiceSeen(stage, partner, actions);
    else
        ClientSeen(stage, partner, actions);
    return Next(std::move(actions));
}

void Handshake::ServiceSeen(Stage stage, const std::string& partner, Actions& actions)
{
    if (stage == Stage::ack || (stage == Stage::syn_ack && !m_listens_to_syn_ack))
        return;
    const bool is_new = !Knows(partner);
    Peer& peer = Meet(partner, actions);
    if (stage == Stage::syn) {
        // It learns of this client by the SYN_ACK.
        m_syn_needed = false;
        peer.owed[IndexOf(Stage::syn)] = false;
        Introduce(peer, Stage::syn_ack);
        return;
    }
    if (!m_syn_shown)
        IntroduceByOwnSyn(is_new, peer);
    // A plain service that has seen this client's SYN waits for an ACK to the SYN_ACK with which it
    // answered; which one that was cannot be told before it has answered the question.
    if (!peer.syn_ack_seen)
        OweAck(peer);
    else if (!peer.Owes(Stage::ack))
        peer.syn_ack_again = true;
    peer.syn_ack_seen = true;
}

void Handshake::ClientSeen(Stage stage, const std::string& partner, Actions& actions)
{
    const bool is_new = !Knows(partner);
    Peer& peer = Meet(partner, actions);
    switch (stage) {
        case Stage::syn:
            peer.acked = false;
            peer.completed = false;
            Introduce(peer, Stage::syn_ack);
            return;
        case Stage::syn_ack:
            // Before the own SYN has shown it was the answer to a predecessor's; the own one will
            // reach this client, since it was listening then.
            if (!m_syn_shown) {
                IntroduceByOwnSyn(is_new, peer);
                return;
            }
            peer.acked = true;
            OweAck(peer);
            return;
        case Stage::ack:
            // Likewise, where it came before the SYN_ACK that it has to answer.
            if (!m_syn_shown)
                IntroduceByOwnSyn(is_new, peer);
            else if (!is_new && peer.IsIntroduced())
                peer.acked = true;
            return;
    }
}

void Handshake::IntroduceByOwnSyn(bool is_new, Peer& peer)
{
    if (is_new)
        Introduce(peer, Stage::syn);
}

Handshake::Peer& Handshake::Meet(const std::string& partner, Actions& actions)
{
    const auto [entry, is_new] = m_peers.try_emplace(partner);
    if (is_new)
        actions.push_back({Kind::meet, Stage::syn, partner});
    return entry->second;
}

// Only what is answered after this pulse has shown says that the other side knows of this one.
void Handshake::Introduce(Peer& peer, Stage stage)
{
    peer.Owe(stage);
    peer.answered = false;
    peer.stale = peer.asking;
    peer.timer = Timer::none;
}

void Handshake::OweAck(Peer& peer)
{
    peer.Owe(Stage::ack);
    peer.ack_waited = false;
    peer.timer = Timer::none;
}

// ---- Own pulses ----------------------------------------------------------------------------

bool Handshake::IsWanted(Stage stage) const
{
    if (stage == Stage::syn && m_syn_needed && !m_syn_shown)
        return true;
    return std::any_of(m_peers.begin(), m_peers.end(),
                       [stage](const auto& entry) { return entry.second.Owes(stage); });
}

// Pulses of one name do not overlap. One that ends from now on shows to all who are known by now.
void Handshake::PulseWhatIsWanted(Actions& actions)
{
    for (const Stage stage : ALL_STAGES) {
        OwnPulse& pulse = m_pulses[IndexOf(stage)];
        if (pulse.in_flight || pulse.retrying || !IsWanted(stage))
            continue;
        pulse.in_flight = true;
        actions.push_back({Kind::pulse, stage});
    }
}

Handshake::Actions Handshake::PulseEnded(Stage stage, PulseResult result)
{
    Actions actions;
    m_pulses[IndexOf(stage)].in_flight = false;
    if (result == PulseResult::shown) {
        for (auto& entry : m_peers) {
            entry.second.owed[IndexOf(stage)] = false;
            // Clients wire a service up by either.
            if (stage == Stage::syn && m_role == ChannelRole::service)
                entry.second.owed[IndexOf(Stage::syn_ack)] = false;
        }
        if (stage == Stage::syn && !std::exchange(m_syn_shown, true))
            actions.push_back({Kind::answer_all});
    } else if (IsWanted(stage)) {
        m_pulses[IndexOf(stage)].retrying = true;
        const bool refused = result == PulseResult::refused;
        actions.push_back({refused ? Kind::retry_refused : Kind::retry, stage});
    }
    return Next(std::move(actions));
}

Handshake::Actions Handshake::Retry(Stage stage)
{
    m_pulses[IndexOf(stage)].retrying = false;
    return Next({});
}

// ---- What becomes of a partner -------------------------------------------------------------

Handshake::Actions Handshake::Met(const std::string& partner)
{
    const auto found = m_peers.find(partner);
    if (found == m_peers.end())
        return {};
    found->second.met = true;
    return Next({});
}

Handshake::Actions Handshake::Answered(const std::string& partner, Answer answer)
{
    const auto found = m_peers.find(partner);
    if (found == m_peers.end() || !found->second.asking)
        return {};
    Peer& peer = found->second;
    peer.asking = false;
    if (std::exchange(peer.stale, false) || peer.ready)
        return Next({});
    Actions actions;
    if (answer == Answer::yes) {
        peer.answered = true;
    } else {
        // A client that has a service does not see another's SYN_ACK, but every SYN.
        if (answer == Answer::unknown && !std::exchange(peer.was_unknown, true))
            Introduce(peer, Stage::syn);
        const bool never = answer == Answer::never;
        peer.timer = never ? Timer::patience : Timer::ask_again;
        actions.push_back({never ? Kind::wait_patiently : Kind::wait_to_ask, Stage::syn, partner});
    }
    return Next(std::move(actions));
}

Handshake::Actions Handshake::TimeOver(const std::string& partner)
{
    const auto found = m_peers.find(partner);
    if (found == m_peers.end())
        return {};
    Peer& peer = found->second;
    const Timer timer = std::exchange(peer.timer, Timer::none);
    if (timer == Timer::ack)
        peer.ack_waited = true;
    else if (timer == Timer::patience && peer.IsIntroduced())
        peer.answered = true;
    return Next({});
}

Handshake::Actions Handshake::Gone(const std::string& partner)
{
    const auto found = m_peers.find(partner);
    if (found == m_peers.end())
        return {};
    Actions actions;
    if (found->second.ready)
        actions.push_back({Kind::tell_lost, Stage::syn, partner});
    m_peers.erase(found);
    // Its successor may have been there before this client listened, and learns of it by the SYN
    // alone.
    if (m_listens_to_syn_ack && m_peers.empty())
        m_syn_needed = true;
    return Next(std::move(actions));
}

// A stranger knows of this side by a pulse that was meant for another. It is told by the SYN, and
// must not take an answer for more before. Who has stopped to listen may have missed its pulse.
Handshake::Word Handshake::WordFor(const std::string& partner) const
{
    if (Knows(partner))
        return Word::yes;
    if (!m_listens_to_syn_ack)
        return Word::unknown;
    return m_syn_shown ? Word::yes : Word::later;
}

// Nobody asks but an endpoint, and it asks whom it has wired up.
Handshake::Actions Handshake::Asked(const std::string& partner)
{
    const auto found = m_peers.find(partner);
    if (found == m_peers.end())
        return {};
    Peer& peer = found->second;
    peer.owed[IndexOf(Stage::syn)] = false;
    peer.owed[IndexOf(Stage::syn_ack)] = false;
    peer.answered = true;
    peer.acked = true;
    peer.ack_waited = true;
    return Next({});
}

// Whoever sends has this side wired up.
Handshake::Actions Handshake::TrafficCame(const std::string& partner)
{
    const auto found = m_peers.find(partner);
    if (found == m_peers.end() || found->second.ready)
        return {};
    found->second.has_traffic = true;
    return Next({});
}

Handshake::Traffic Handshake::TrafficOf(const std::string& partner) const
{
    const auto found = m_peers.find(partner);
    if (found == m_peers.end())
        return Traffic::of_stranger;
    return found->second.ready ? Traffic::deliver : Traffic::hold;
}

bool Handshake::IsReady(const std::string& partner) const
{
    const auto found = m_peers.find(partner);
    return found != m_peers.end() && found->second.ready;
}

// ---- What follows --------------------------------------------------------------------------

Handshake::Actions Handshake::Next(Actions actions)
{
    Advance(actions);
    PulseWhatIsWanted(actions);
    return actions;
}

void Handshake::Advance(Actions& actions)
{
    for (auto& [partner, peer] : m_peers) {
        if (!peer.ready && peer.met)
            Advance(partner, peer, actions);
    }
}

void Handshake::Advance(const std::string& partner, Peer& peer, Actions& actions)
{
    if (peer.has_traffic) {
        TakeAsReady(partner, peer, actions);
        return;
    }
    if (!peer.IsIntroduced() || !IsAckSettled(partner, peer, actions))
        return;
    if (peer.answered)
        TakeAsReady(partner, peer, actions);
    else if (!peer.asking && peer.timer == Timer::none) {
        peer.asking = true;
        actions.push_back({Kind::ask, Stage::syn, partner});
    }
}

// A plain partner is ready when it has seen its ACK, and is given the time for that; but a name
// that somebody holds keeps nobody waiting for ever.
bool Handshake::IsAckSettled(const std::string& partner, Peer& peer, Actions& actions)
{
    if (peer.answered && !peer.Owes(Stage::ack)) {
        const bool may_wait =
            m_role == ChannelRole::service && !peer.acked && peer.ack_waited && !peer.completed;
        peer.completed = peer.completed || may_wait;
        if (std::exchange(peer.syn_ack_again, false) || may_wait)
            OweAck(peer);
    }
    const bool awaits_peers =
        m_role == ChannelRole::service && peer.answered && !peer.acked && !peer.completed;
    if (peer.ack_waited || (!peer.Owes(Stage::ack) && !awaits_peers)) {
        if (peer.timer == Timer::ack)
            peer.timer = Timer::none;
        return true;
    }
    if (peer.timer == Timer::none) {
        peer.timer = Timer::ack;
        actions.push_back({Kind::wait_for_ack, Stage::syn, partner});
    }
    return false;
}

void Handshake::TakeAsReady(const std::string& partner, Peer& peer, Actions& actions)
{
    peer.ready = true;
    peer.timer = Timer::none;
    actions.push_back({Kind::tell_ready, Stage::syn, partner});
    if (m_role == ChannelRole::client && std::exchange(m_listens_to_syn_ack, false))
        actions.insert(actions.end(), {{Kind::stop_listening, Stage::syn_ack}, {Kind::answer_all}});
}

std::string Handshake::Fingerprint() const
{
    std::string text;
    const auto add = [&text](std::initializer_list<bool> flags) {
        for (const bool flag : flags)
            text += flag ? '1' : '0';
    };
    add({m_role == ChannelRole::service, m_syn_needed, m_syn_shown, m_listens_to_syn_ack});
    for (const OwnPulse& pulse : m_pulses)
        add({pulse.in_flight, pulse.retrying});
    for (const auto& [partner, peer] : m_peers) {
        text += partner + "=";
        add({peer.owed[0], peer.owed[1], peer.owed[2], peer.met, peer.asking, peer.stale,
             peer.answered, peer.syn_ack_seen, peer.syn_ack_again, peer.acked, peer.completed,
             peer.ack_waited, peer.has_traffic, peer.ready, peer.was_unknown});
        text += static_cast<char>('0' + static_cast<char>(peer.timer));
    }
    return text;
}
