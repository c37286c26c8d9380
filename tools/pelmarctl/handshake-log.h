// Makes sense of the changes of owners on a bus: pulses, and handshakes that do not go on. Knows
// neither the bus nor a clock.
//
// Pulses are not addressed: which one answers which is not to be seen. A SYN is answered by any
// SYN_ACK of the other role on its channel, and a SYN_ACK by any ACK.
#ifndef PELMARCTL_HANDSHAKE_LOG_H
#define PELMARCTL_HANDSHAKE_LOG_H

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bus.h"
#include "stage-names.h"
#include "switch-monitor.h"

class HandshakeLog {
public:
    using Clock = std::chrono::steady_clock;
    using TimePoint = Clock::time_point;

    struct Event {
        enum class Kind {
            pulse,       // a stage was announced
            held,        // a stage name was acquired and is not released
            unanswered,  // a SYN or a SYN_ACK was not followed by what has to follow
            left,        // a process that had pulsed is gone
            direct,      // a client sends its service past the bus from now on
        };
        Kind kind;
        std::string channel;
        std::string who;
        ChannelRole role;
        Stage stage;
        std::string note;
        std::optional<Clock::duration> gap;  // since the channel's last pulse
    };

    // An empty channel: all.
    explicit HandshakeLog(std::string channel) : m_only(std::move(channel)) {}

    // What the change tells.
    std::vector<Event> See(const OwnerChange& change, TimePoint now);

    // A client went over to the direct path to its service.
    std::vector<Event> SeeSwitch(const SwitchOver& switch_over) const;

    // When Wake is to be called next; and what has not happened by then.
    std::optional<TimePoint> NextWake() const;
    std::vector<Event> Wake(TimePoint now);

private:
    struct Pulse {
        std::string who;
        ChannelRole role;
        Stage stage;
        TimePoint time;
    };
    struct Channel {
        std::optional<TimePoint> last_pulse;
        std::vector<Pulse> open;              // SYNs and SYN_ACKs that are not answered yet
        std::map<std::string, Pulse> latest;  // by stage name
        std::map<std::string, Pulse> held;    // by stage name
        std::map<std::string, ChannelRole> members;
    };

    Event SeePulse(const StageName& name, const OwnerChange& change, TimePoint now);
    std::vector<Event> SeeLeave(const std::string& who);
    static std::string NoteOn(const Channel& channel, const std::string& name, const Pulse& pulse);
    static std::string TakeAnswered(Channel& channel, const Pulse& pulse);

    const std::string m_only;
    std::map<std::string, Channel> m_channels;
};

#endif
