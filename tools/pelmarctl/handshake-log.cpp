#include "handshake-log.h"

#include <algorithm>

#include "session.h"

namespace {

using std::chrono::milliseconds;

// What has to follow a pulse follows within a few milliseconds, or after a repair.
constexpr milliseconds PATIENCE{2000};

// Two that pulse the same name so close to each other may have got in each other's way.
constexpr milliseconds CLOSE{20};

std::string Milliseconds(HandshakeLog::Clock::duration time)
{
    const auto tenths = std::chrono::duration_cast<std::chrono::microseconds>(time).count() / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " ms";
}

bool Answers(ChannelRole role, Stage stage, ChannelRole asking, Stage open)
{
    return role != asking && IndexOf(stage) == IndexOf(open) + 1;
}

}  // namespace

std::vector<HandshakeLog::Event> HandshakeLog::See(const OwnerChange& change, TimePoint now)
{
    if (change.name.front() == ':')
        return change.new_owner.empty() ? SeeLeave(change.name) : std::vector<Event>();
    const std::optional<StageName> name = ParseStageName(change.name);
    if (!name || (!m_only.empty() && name->channel != m_only))
        return {};
    Channel& channel = m_channels[name->channel];
    std::vector<Event> events;
    channel.held.erase(change.name);
    if (!change.old_owner.empty())
        events.push_back(SeePulse(*name, change, now));
    if (!change.new_owner.empty())
        channel.held[change.name] = {change.new_owner, name->role, name->stage, now};
    return events;
}

HandshakeLog::Event HandshakeLog::SeePulse(const StageName& name, const OwnerChange& change,
                                           TimePoint now)
{
    Channel& channel = m_channels[name.channel];
    const Pulse pulse{change.old_owner, name.role, name.stage, now};
    Event event{Event::Kind::pulse, name.channel, pulse.who, pulse.role, pulse.stage, "", {}};
    event.note = TakeAnswered(channel, pulse);
    if (event.note.empty())
        event.note = NoteOn(channel, change.name, pulse);
    if (!change.new_owner.empty())
        event.note = "collision: the name went straight on to " + change.new_owner +
                     ", so nobody takes this for a pulse";
    if (channel.last_pulse)
        event.gap = now - *channel.last_pulse;
    channel.last_pulse = now;
    channel.latest[change.name] = pulse;
    channel.members[pulse.who] = pulse.role;
    // Who pulses a stage again waits for one answer still; and who answers has found somebody.
    const auto is_over = [&](const Pulse& open) {
        return open.who == pulse.who && (open.stage == pulse.stage || open.stage == Stage::syn);
    };
    channel.open.erase(std::remove_if(channel.open.begin(), channel.open.end(), is_over),
                       channel.open.end());
    if (pulse.stage != Stage::ack)
        channel.open.push_back(pulse);
    return event;
}

// Collisions show only in this: the one that comes off worse does not show at all.
std::string HandshakeLog::NoteOn(const Channel& channel, const std::string& name,
                                 const Pulse& pulse)
{
    const auto latest = channel.latest.find(name);
    if (latest == channel.latest.end())
        return {};
    const Clock::duration since = pulse.time - latest->second.time;
    if (latest->second.who == pulse.who)
        return "again, after " + Milliseconds(since);
    return since < CLOSE ? "close to that of " + latest->second.who + ": others may have collided"
                         : "";
}

std::string HandshakeLog::TakeAnswered(Channel& channel, const Pulse& pulse)
{
    std::string text;
    for (auto open = channel.open.begin(); open != channel.open.end();) {
        if (!Answers(pulse.role, pulse.stage, open->role, open->stage)) {
            ++open;
            continue;
        }
        text += (text.empty() ? "answers " : ", ") + open->who + " after " +
                Milliseconds(pulse.time - open->time);
        open = channel.open.erase(open);
    }
    return text;
}

std::vector<HandshakeLog::Event> HandshakeLog::SeeLeave(const std::string& who)
{
    std::vector<Event> events;
    for (auto& [name, channel] : m_channels) {
        const auto member = channel.members.find(who);
        if (member == channel.members.end())
            continue;
        events.push_back({Event::Kind::left, name, who, member->second, Stage::syn, "", {}});
        channel.members.erase(member);
        channel.open.erase(std::remove_if(channel.open.begin(), channel.open.end(),
                                          [&](const Pulse& open) { return open.who == who; }),
                           channel.open.end());
    }
    return events;
}

std::vector<HandshakeLog::Event> HandshakeLog::SeeSwitch(const SwitchOver& switch_over) const
{
    if (!m_only.empty() && switch_over.channel != m_only)
        return {};
    return {{Event::Kind::direct,
             switch_over.channel,
             switch_over.client,
             ChannelRole::client,
             Stage::ack,
             "goes past the bus with " + switch_over.service + ": what they send is not seen here",
             {}}};
}

std::optional<HandshakeLog::TimePoint> HandshakeLog::NextWake() const
{
    std::optional<TimePoint> next;
    const auto take = [&](const Pulse& pulse) {
        const TimePoint due = pulse.time + PATIENCE;
        next = next ? std::min(*next, due) : due;
    };
    for (const auto& [name, channel] : m_channels) {
        for (const Pulse& open : channel.open)
            take(open);
        for (const auto& [held_name, held] : channel.held)
            take(held);
    }
    return next;
}

std::vector<HandshakeLog::Event> HandshakeLog::Wake(TimePoint now)
{
    std::vector<Event> events;
    const auto is_due = [now](const Pulse& pulse) { return pulse.time + PATIENCE <= now; };
    for (auto& [name, channel] : m_channels) {
        for (const Pulse& open : channel.open) {
            if (!is_due(open))
                continue;
            const std::string other = NameOf(OtherRole(open.role));
            events.push_back({Event::Kind::unanswered,
                              name,
                              open.who,
                              open.role,
                              open.stage,
                              open.stage == Stage::syn
                                  ? "no " + other + " has answered"
                                  : "half-finished: no " + other + " has pulsed ACK",
                              {}});
        }
        for (auto held = channel.held.begin(); held != channel.held.end();) {
            if (!is_due(held->second)) {
                ++held;
                continue;
            }
            const Pulse& pulse = held->second;
            events.push_back({Event::Kind::held,
                              name,
                              pulse.who,
                              pulse.role,
                              pulse.stage,
                              "holds the name: nobody else can pulse it",
                              {}});
            held = channel.held.erase(held);
        }
        channel.open.erase(std::remove_if(channel.open.begin(), channel.open.end(), is_due),
                           channel.open.end());
    }
    return events;
}
