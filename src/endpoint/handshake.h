// The handshake of an endpoint, as a state machine: which pulse is owed to whom, who has to be
// asked, and who is ready. Internal.
//
// Events go in as calls and actions come out as a list. It knows neither GLib nor clock nor chance:
// how long a wait is, and how pulses of many are spread, is the business of whoever carries the
// actions out. Events are to come in the order in which the bus delivered them. docs/protocol.md
// says what it does and why; tests/endpoint/handshake-explorer.cpp runs it through every order of
// events.
#ifndef PELMAR_HANDSHAKE_H
#define PELMAR_HANDSHAKE_H

#include <array>
#include <map>
#include <string>
#include <vector>

#include "channel-stage.h"

class Handshake {
public:
    enum class PulseResult { shown, missed, refused };

    // What became of a question: the partner's main loop has dealt with all that came before it;
    // it has, and does not know this side; the partner, or the bus's policy, will never let it be
    // answered; not now.
    enum class Answer { yes, unknown, never, not_now };

    // What a partner that asks is to be told: that it is known; nothing yet; that it is not.
    enum class Word { yes, later, unknown };

    // What a partner's traffic is to the application.
    enum class Traffic { deliver, hold, of_stranger };

    struct Action {
        enum class Kind {
            pulse,           // acquire and release the stage's name; then PulseEnded
            retry,           // Retry(stage) after a while, longer the more often it happened
            retry_refused,   // the same, much later: nothing changes quickly
            meet,            // learn who the partner is and watch for its end; then Met or Gone
            ask,             // have its main loop answer; then Answered
            wait_for_ack,    // TimeOver(partner) after the time a pulse takes to be repaired
            wait_patiently,  // the same after the time any main loop takes to come round
            wait_to_ask,     // the same after a moment
            tell_ready,      // it is ready: tell, then deliver what was held of it
            tell_lost,
            answer_all,     // WordFor those who were told nothing yet may have changed
            stop_listening  // the peers' SYN_ACK is not of interest any more
        };

        bool operator==(const Action& other) const
        {
            return kind == other.kind && stage == other.stage && partner == other.partner;
        }

        Kind kind;
        Stage stage = Stage::syn;
        std::string partner = {};
    };
    using Actions = std::vector<Action>;

    explicit Handshake(ChannelRole role) : m_role(role) {}

    // It listens: a service to its clients' three names, a client to its service's SYN and SYN_ACK.
    // Again after a time in which pulses may have been missed.
    Actions Announce();

    // A name of the other side was acquired and released by `partner`.
    Actions PulseSeen(Stage stage, const std::string& partner);

    // Own pulses and their repair.
    Actions PulseEnded(Stage stage, PulseResult result);
    Actions Retry(Stage stage);

    // Partners that `meet` or `ask` was for; nothing happens for others.
    Actions Met(const std::string& partner);
    Actions Answered(const std::string& partner, Answer answer);
    Actions TimeOver(const std::string& partner);
    Actions Gone(const std::string& partner);

    // `partner` asks the question of `ask`. What it is told, at once or at answer_all.
    Actions Asked(const std::string& partner);
    Word WordFor(const std::string& partner) const;

    // A call or a notification of `partner` came.
    Actions TrafficCame(const std::string& partner);
    Traffic TrafficOf(const std::string& partner) const;

    bool Knows(const std::string& partner) const { return m_peers.count(partner) != 0; }
    bool IsReady(const std::string& partner) const;
    bool IsListeningToSynAck() const { return m_listens_to_syn_ack; }

    // Equal for machines that behave alike from here on.
    std::string Fingerprint() const;

private:
    struct OwnPulse {
        bool in_flight = false;
        bool retrying = false;
    };
    enum class Timer : char { none, ack, patience, ask_again };

    // What is known of one process of the other side.
    struct Peer {
        bool Owes(Stage stage) const { return owed[IndexOf(stage)]; }
        void Owe(Stage stage) { owed[IndexOf(stage)] = true; }
        // It has seen, or will have before it can answer a question, that this side is here.
        bool IsIntroduced() const { return !Owes(Stage::syn) && !Owes(Stage::syn_ack); }

        std::array<bool, ALL_STAGES.size()> owed{};  // own pulses that have to show yet
        bool met = false;
        bool asking = false;
        bool stale = false;     // the open question was asked before the last introduction
        bool answered = false;  // it has this side wired up
        bool syn_ack_seen = false;
        bool syn_ack_again =
            false;                // of a service: another one since the ACK that answered the first
        bool acked = false;       // of a client: it is not waiting for an ACK
        bool completed = false;   // of a client: it was given one in case it is
        bool ack_waited = false;  // no ACK is waited for any longer
        bool has_traffic = false;
        bool ready = false;
        bool was_unknown = false;  // this side was introduced anew for it
        Timer timer = Timer::none;
    };

    Peer& Meet(const std::string& partner, Actions& actions);
    void ServiceSeen(Stage stage, const std::string& partner, Actions& actions);
    void ClientSeen(Stage stage, const std::string& partner, Actions& actions);
    void Introduce(Peer& peer, Stage stage);
    void IntroduceByOwnSyn(bool is_new, Peer& peer);
    void OweAck(Peer& peer);
    bool IsWanted(Stage stage) const;
    void PulseWhatIsWanted(Actions& actions);
    void Advance(Actions& actions);
    void Advance(const std::string& partner, Peer& peer, Actions& actions);
    bool IsAckSettled(const std::string& partner, Peer& peer, Actions& actions);
    void TakeAsReady(const std::string& partner, Peer& peer, Actions& actions);
    Actions Next(Actions actions);

    ChannelRole m_role;
    bool m_syn_needed = false;
    bool m_syn_shown = false;
    bool m_listens_to_syn_ack = true;
    std::array<OwnPulse, ALL_STAGES.size()> m_pulses;
    std::map<std::string, Peer> m_peers;
};

#endif
