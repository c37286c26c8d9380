// watch: the handshakes on the bus as they go, from the changes of owners, which everybody may see;
// and who goes past the bus after that, where this user may monitor it.

#include <glib.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "command-line.h"
#include "handshake-log.h"
#include "session.h"

namespace {

using Event = HandshakeLog::Event;

struct WatchOptions {
    std::string channel;
};

const char* KindOf(const Event& event)
{
    switch (event.kind) {
        case Event::Kind::pulse:
            return "pulse";
        case Event::Kind::held:
            return "held";
        case Event::Kind::unanswered:
            return "unanswered";
        case Event::Kind::direct:
            return "direct";
        case Event::Kind::left:
            break;
    }
    return "left";
}

bool IsOfAStage(const Event& event)
{
    return event.kind != Event::Kind::left && event.kind != Event::Kind::direct;
}

// To the millisecond; the format ends in the microseconds.
std::string Now(const char* format)
{
    const std::unique_ptr<GDateTime, decltype(&g_date_time_unref)> now(g_date_time_new_now_local(),
                                                                       g_date_time_unref);
    const std::unique_ptr<char, decltype(&g_free)> text(g_date_time_format(now.get(), format),
                                                        g_free);
    const std::string time(text.get());
    return time.substr(0, time.size() - 3);
}

double MillisecondsOf(HandshakeLog::Clock::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

Json RecordOf(const Event& event)
{
    Json record = JsonRecord();
    record["event"] = KindOf(event);
    record["time"] = Now("%Y-%m-%dT%H:%M:%S.%f");
    record["channel"] = event.channel;
    record["name"] = event.who;
    record["role"] = NameOf(event.role);
    if (IsOfAStage(event))
        record["stage"] = NameOf(event.stage);
    if (event.gap)
        record["gap_ms"] = MillisecondsOf(*event.gap);
    if (!event.note.empty())
        record["note"] = event.note;
    return record;
}

std::string GapOf(const Event& event)
{
    if (!event.gap)
        return "";
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "+%.3f", MillisecondsOf(*event.gap) / 1000);
    return text.data();
}

std::string Trimmed(const std::string& text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::string LineOf(const Output& output, const Event& event)
{
    const std::string stage = IsOfAStage(event) ? NameOf(event.stage) : KindOf(event);
    std::array<char, 512> text{};
    std::snprintf(text.data(), text.size(), "%s %9s  %-12s %-8s %-8s %-8s",
                  Now("%H:%M:%S.%f").c_str(), GapOf(event).c_str(), event.channel.c_str(),
                  event.who.c_str(), NameOf(event.role), stage.c_str());
    const bool is_bad = event.kind == Event::Kind::held || event.kind == Event::Kind::unanswered;
    return output.Paint(is_bad ? Colour::bad : Colour::plain, Trimmed(text.data() + event.note)) +
           "\n";
}

void Show(const Output& output, const std::vector<Event>& events)
{
    for (const Event& event : events) {
        if (output.IsJson())
            output.Write(RecordOf(event));
        else
            output.Write(LineOf(output, event));
    }
}

// Names that were acquired before this began.
void SeeHeldNames(Bus& bus, HandshakeLog& log)
{
    for (const std::string& name : bus.Names()) {
        if (!ParseStageName(name))
            continue;
        if (const auto owner = bus.OwnerOf(name))
            log.See({name, "", *owner}, HandshakeLog::Clock::now());
    }
}

EventQueue::Deadline Earlier(EventQueue::Deadline one, EventQueue::Deadline other)
{
    if (!one || !other)
        return one ? one : other;
    return std::min(*one, *other);
}

Exit Watch(Tool& tool, const WatchOptions& options)
{
    HandshakeLog log(options.channel);
    bool news = false;
    Bus bus(tool.queue, tool.Timeout());
    bus.WatchOwners([&](const OwnerChange& change) {
        Show(tool.output, log.See(change, HandshakeLog::Clock::now()));
        news = true;
    });
    const SwitchMonitor monitor(tool.queue, [&](const SwitchOver& switch_over) {
        Show(tool.output, log.SeeSwitch(switch_over));
        news = true;
    });
    SeeHeldNames(bus, log);
    if (!monitor.IsMonitoring())
        tool.output.Note("the bus does not let this user see which partners go past it");
    tool.output.Note("watching " +
                     (options.channel.empty() ? "every channel" : "channel " + options.channel) +
                     " at " + Bus::Address());
    const EventQueue::Deadline end = tool.OptionalDeadline();
    while (!end || HandshakeLog::Clock::now() < *end) {
        news = false;
        tool.queue.Wait([&] { return news; }, Earlier(end, log.NextWake()));
        Show(tool.output, log.Wake(HandshakeLog::Clock::now()));
    }
    return Exit::ok;
}

}  // namespace

void AddWatch(CLI::App& app, Command& chosen)
{
    const auto options = std::make_shared<WatchOptions>();
    CLI::App* command = AddCommand(app, chosen, "watch", "Show the handshakes as they go",
                                   "pelmarctl watch demo", options, Watch);
    AddChannel(*command, options->channel);
    command->footer(
        "Messages and notifications are not shown. Between two endpoints they go past the bus; "
        "with\n"
        "PELMAR_DIRECT=0 in the environment of one of them they stay on it, where a monitor\n"
        "(dbus-monitor --system) shows them.\n\n" +
        command->get_footer());
}
