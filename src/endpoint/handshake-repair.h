// Which pulse has to be pulsed again, and when. Internal.
//
// It sees the own and the peers' pulses in the order of the bus and keeps, for each own stage,
// whether a pulse of it is still to be shown. It asks for one only when the one that the channel
// made did not show. It knows neither GLib nor the bus: time and all effects come from outside.
#ifndef PELMAR_HANDSHAKE_REPAIR_H
#define PELMAR_HANDSHAKE_REPAIR_H

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "stage.h"

class HandshakeRepair {
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;

    // How far a partner has come, as the channel sees it: half is wired up but not ready.
    enum class Wiring { none, half, ready };

    enum class PulseResult { done, refused };
    enum class ProbeResult { alive, silent, unanswerable };

    class Actions {
    public:
        virtual ~Actions() = default;
        virtual Wiring WiringOf(const std::string& partner) const = 0;
        virtual bool AnyWired() const = 0;

        // Acquires and releases the own name of the stage, without waiting; then PulseAnswered.
        virtual void Pulse(Stage stage) = 0;

        // Has the partner's main loop answer a call, without waiting; then ProbeAnswered.
        virtual void Probe(const std::string& partner) = 0;

        // The partner has this side wired up: what is missing here is its pulse alone.
        virtual void TakeAckAsSeen(const std::string& partner) = 0;
        virtual void TakeSynAckAsSeen(const std::string& partner) = 0;

        // Both sides are ready.
        virtual void ReportReady(const std::string& partner) = 0;
    };

    enum class Role { service, client };

    HandshakeRepair(Role role, Actions& actions, unsigned seed);

    // The channel is about to pulse the stage, or has just tried.
    void Require(Stage stage, TimePoint now);

    // An own pulse has shown.
    void OwnReleased(Stage stage, TimePoint now);

    // A peer's pulse has shown; to be told before the channel's own handler runs.
    void PeerReleased(Stage stage, const std::string& partner, TimePoint now);

    // The channel takes the partner as ready. ReportReady follows at once unless the pulse that
    // made it so may have been meant for somebody else.
    void ChannelReady(const std::string& partner, TimePoint now);

    void PulseAnswered(Stage stage, PulseResult result, TimePoint now);
    void ProbeAnswered(const std::string& partner, ProbeResult result, TimePoint now);
    void PartnerGone(const std::string& partner);

    // When Wake is to be called next; nothing when there is nothing to repair.
    std::optional<TimePoint> NextWake() const;

    // Repairs what has been missing. Every pulse that the channel made before `as_of` and every
    // signal that was on its way by then must have been told: what is missing now is lost.
    void Wake(TimePoint as_of);

private:
    struct OwnPulse {
        // It may still show.
        bool IsOpen() const { return missing || in_flight; }

        bool missing = false;
        bool in_flight = false;
        int attempts = 0;
        TimePoint next_try;
    };
    struct Waiting {
        TimePoint since;
        TimePoint next_step;
        bool probing = false;
    };

    using WaitingPartners = std::map<std::string, Waiting>;

    OwnPulse& PulseOf(Stage stage) { return m_pulses[IndexOf(stage)]; }
    bool AnyOpen() const;
    void PeersSyn(const std::string& partner, TimePoint now);
    void PeersSynAck(const std::string& partner, TimePoint now);
    void PeersAck(const std::string& partner, TimePoint now);
    void WakePulses(TimePoint as_of);
    void WakeHalfPartners(TimePoint as_of);
    void WakeUnknownPartners(TimePoint as_of);
    void WakeUnconfirmedPartners(TimePoint as_of);
    void ProbeWhenDue(const std::string& partner, Waiting& waiting, TimePoint as_of);
    void HalfPartnerAnswered(const std::string& partner, ProbeResult result, TimePoint now);
    void UnconfirmedPartnerAnswered(const std::string& partner, ProbeResult result, TimePoint now);
    void Complete(const std::string& partner, TimePoint now);
    Clock::duration Jitter(std::chrono::milliseconds window);

    const Role m_role;
    Actions& m_actions;
    std::minstd_rand m_random;
    std::array<OwnPulse, ALL_STAGES.size()> m_pulses;

    // Partners wired by their SYN whose ACK is awaited.
    WaitingPartners m_half;

    // Services that may have answered this client's SYN before they saw its answer to theirs: then
    // they wait for its ACK.
    std::set<std::string> m_crossing;
    std::optional<TimePoint> m_syn_shown;

    // Clients that pulsed ACK although nothing of theirs was seen before.
    WaitingPartners m_unknown;

    // Services that are ready as far as their pulses tell, which are not addressed: the own pulse
    // by which they learn of this client was missing.
    WaitingPartners m_unconfirmed;

    int m_probes = 0;

    // Partners to be taken as ready once the own ACK has shown.
    std::set<std::string> m_completing;
};

#endif
