// doctor: who is on the channel, and how far they have come with each other.
//
// Who has seen its partner's pulse listens to the partner from then on, or watches for its end, and
// the daemon tells which match rules there are, to root: so it shows which stage is missing between
// two.

#include <algorithm>

#include "doctor.h"
#include "session.h"
#include "stage-names.h"

namespace {

std::set<std::string> MembersOf(const Scene& scene, ChannelRole role)
{
    std::set<std::string> members;
    for (const std::string& name : scene.Members()) {
        if (scene.rules->TakesPart(name, scene.channel, role))
            members.insert(name);
    }
    return members;
}

std::map<std::string, std::string> HeldNames(const Scene& scene)
{
    std::map<std::string, std::string> held;
    for (const ChannelRole role : BOTH_ROLES) {
        for (const std::string& name : StageNamesOf(scene.channel, role)) {
            if (const auto owner = scene.bus.OwnerOf(name))
                held[name] = *owner;
        }
    }
    return held;
}

bool Contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Without an object, although it watches the channel's names.
void CheckWatcher(Report& report, const Scene& scene, const std::string& name)
{
    report.Problem(Exit::failure, "object",
                   Describe(scene.bus, name) + " is on the channel but has no object at " +
                       ObjectPathOf(scene.channel) + ": calls of it fail",
                   "export the object before the first pulse; in one process each channel needs a "
                   "name of its own");
}

void CheckObject(Report& report, const Scene& scene, const ChannelObject& object)
{
    const std::string who = Describe(scene.bus, object.name);
    const bool takes_part = !scene.rules || scene.rules->Members(scene.channel).count(object.name);
    if (object.state == ObjectState::no_interface)
        report.Problem(Exit::failure, "object",
                       who + " has something else at " + ObjectPathOf(scene.channel) +
                           ", without " + CHANNEL_INTERFACE,
                       "let nobody but the channel use this path");
    else if (object.state == ObjectState::silent && Contains(scene.survey.silent, object.name))
        report.Problem(Exit::timeout, "object",
                       who + " does not answer: it is stopped, or the bus does not reach it",
                       "let it go on, or restart it");
    else if (object.state == ObjectState::silent)
        report.Problem(
            Exit::timeout, "object",
            who +
                " does not answer: its main loop does not run, or it is an endpoint "
                "whose SYN has not shown yet",
            "let it run its main loop, or restart it; an endpoint goes on when its names "
            "are free");
    else if (object.state == ObjectState::refused)
        report.Unknown("object", who + "; this user may not ask for its object");
    else if (!takes_part)
        report.Problem(Exit::failure, "object",
                       who +
                           " has taken the channel's object path but watches none of the "
                           "channel's names: it is no side of the channel",
                       "stop it, or give it another path");
    else
        report.Good("object", who);
}

bool IsBothSides(const Scene& scene, const std::string& name)
{
    return scene.rules && scene.rules->TakesPart(name, scene.channel, ChannelRole::service) &&
           scene.rules->TakesPart(name, scene.channel, ChannelRole::client);
}

void CheckSides(Report& report, const Scene& scene)
{
    for (const ChannelRole role : BOTH_ROLES) {
        const std::size_t count = MembersOf(scene, role).size();
        if (count == 0)
            report.Problem(Exit::no_partner, "sides",
                           std::string("no ") + NameOf(role) + " is on the channel, only the " +
                               NameOf(OtherRole(role)),
                           std::string("start the ") + NameOf(role) +
                               "; is it given the same channel name and the right role?");
        else
            report.Good("sides", Count(count, NameOf(role)));
    }
}

void ReportHalf(Report& report, const Scene& scene, const std::string& seeing,
                const std::string& blind)
{
    if (scene.rules->IsEndpoint(blind, scene.channel)) {
        report.Unknown(
            "handshake",
            seeing + " has seen " + blind +
                ", an endpoint that has no match rule for it: it repairs that, unless it "
                "has another partner already or the bus lets it have no more rules");
        return;
    }
    report.Problem(Exit::no_partner, "handshake",
                   "half-way: " + seeing + " has seen " + blind + ", but " + blind +
                       " has not seen the answer of " + seeing + ": the stage SYN_ACK is missing",
                   "restart " + blind +
                       "; a pulse is lost when two make the same one at the same moment, and a "
                       "PelmarEndpoint repairs that");
}

// Which way the two go; empty where neither says.
std::string WayOf(const Scene& scene, const std::string& one, const std::string& other)
{
    const auto object = scene.ObjectOf(one);
    if (!object || !object->direct)
        return "";
    return Contains(*object->direct, other) ? ", and send past the bus" : ", and send by the bus";
}

void CheckPair(Report& report, const Scene& scene, const std::optional<MatchRules>& later,
               const std::string& service, const std::string& client)
{
    const auto has_wired = [&](const std::string& one, const std::string& other) {
        return scene.rules->WiredBy(one, scene.channel).count(other) != 0 ||
               (later && later->WiredBy(one, scene.channel).count(other) != 0);
    };
    const bool service_knows = has_wired(service, client);
    const bool client_knows = has_wired(client, service);
    if (service_knows && client_knows)
        report.Good("handshake", service + " and " + client + " have found each other" +
                                     WayOf(scene, client, service));
    else if (service_knows)
        ReportHalf(report, scene, service, client);
    else if (client_knows)
        ReportHalf(report, scene, client, service);
    else
        report.Problem(Exit::no_partner, "handshake",
                       service + " and " + client +
                           " have seen nothing of each other: the stage SYN is missing",
                       "restart one of the two after the other");
}

// `partner` was taken for one by its pulse, and is no side of the channel.
void ReportLoneWire(Report& report, const Scene& scene, const std::string& name,
                    const std::string& partner)
{
    if (Contains(scene.survey.names, partner))
        report.Problem(Exit::no_partner, "handshake",
                       "half-way: " + name + " has seen a pulse of " +
                           Describe(scene.bus, partner) +
                           ", which watches no name of the channel: only its SYN came, and nothing "
                           "can follow",
                       "whoever pulses has to watch the other side's names");
    // What an endpoint watches it is told of: it was about to take the rule back.
    else if (!scene.rules->IsEndpoint(name, scene.channel))
        report.Problem(
            Exit::failure, "handshake",
            name + " still takes " + partner +
                ", which is gone, for its partner: its match rules are exhausted",
            "raise max_match_rules_per_connection in a file in /etc/dbus-1/system.d, and "
            "restart it");
}

void CheckLoneWires(Report& report, const Scene& scene)
{
    const std::set<std::string> members = scene.rules->Members(scene.channel);
    for (const std::string& name : members) {
        for (const std::string& partner : scene.rules->WiredBy(name, scene.channel)) {
            if (members.count(partner) == 0 && partner != scene.bus.UniqueName())
                ReportLoneWire(report, scene, name, partner);
        }
    }
}

void ReportNobody(Report& report, const Scene& scene)
{
    if (scene.survey.refused != 0 && !scene.rules)
        report.Unknown("object", "the policy does not let this user see who is on the channel: " +
                                     Count(scene.survey.refused, "connection") +
                                     " cannot be asked");
    else
        report.Problem(Exit::no_partner, "object", "nobody is on channel " + scene.channel,
                       "start the service and the client, with the same channel name and bus");
}

}  // namespace

// A pulse holds a name for a moment: only who still has it later keeps it.
void CheckHeldNames(Report& report, const Scene& scene)
{
    const auto held = HeldNames(scene);
    const auto still_held = held.empty() ? held : HeldNames(scene);
    bool any = false;
    for (const auto& [name, owner] : still_held) {
        const auto before = held.find(name);
        if (before == held.end() || before->second != owner)
            continue;
        any = true;
        report.Problem(
            Exit::failure, "names",
            name + " is held by " + Describe(scene.bus, owner) + ": nobody else can pulse it",
            "end that process, or let it release the name at once");
    }
    if (!any)
        report.Good("names", "all six stage names are free");
}

void CheckMembers(Report& report, const Scene& scene)
{
    const std::set<std::string> members = scene.Members();
    for (const std::string& name : members) {
        const auto object = scene.ObjectOf(name);
        if (object)
            CheckObject(report, scene, *object);
        else
            CheckWatcher(report, scene, name);
        if (IsBothSides(scene, name))
            report.Problem(Exit::failure, "sides",
                           Describe(scene.bus, name) +
                               " is both sides on one connection: they do not find each other",
                           "put the two sides into processes of their own, or let one be a "
                           "PelmarEndpoint, which has a connection of its own");
    }
    if (members.empty())
        ReportNobody(report, scene);
    else if (scene.rules)
        CheckSides(report, scene);
    else if (members.size() == 1)
        report.Problem(Exit::no_partner, "sides", "only " + *members.begin() + " is on the channel",
                       "start the other side, with the same channel name and bus");
    else
        report.Unknown("sides", "this user may not see who is which side");
}

void CheckHandshakes(Report& report, const Scene& scene)
{
    if (!scene.rules) {
        if (scene.Members().size() > 1)
            report.Unknown("handshake", "this user may not see how far it is (--as tries one)");
        return;
    }
    // One that is under way is further now.
    const std::optional<MatchRules> later = MatchRules::Read(scene.bus);
    for (const std::string& service : MembersOf(scene, ChannelRole::service)) {
        for (const std::string& client : MembersOf(scene, ChannelRole::client)) {
            if (service != client)
                CheckPair(report, scene, later, service, client);
        }
    }
    CheckLoneWires(report, scene);
}

void TakePart(Report& report, Tool& tool, const Scene& scene, ChannelRole role)
{
    std::set<std::string> answers;
    scene.bus.WatchOwners([&](const OwnerChange& change) {
        const auto name = ParseStageName(change.name);
        if (name && name->channel == scene.channel && name->role != role &&
            name->stage == Stage::syn_ack && change.new_owner.empty())
            answers.insert(change.old_owner);
    });
    const std::string as = std::string(" as ") + NameOf(role);
    try {
        Session session(tool, scene.channel, role);
        session.Start();
        const auto is_ready = [&] { return !session.Endpoint().Partners().empty(); };
        if (tool.queue.Wait(is_ready, EventQueue::Clock::now() + tool.Timeout()))
            report.Good("attempt",
                        "ready with " + session.Endpoint().Partners().front().Name() + as);
        else if (answers.empty())
            report.Problem(Exit::no_partner, "attempt", "nobody answers the SYN of a partner" + as,
                           std::string("start or restart the ") + NameOf(OtherRole(role)));
        else
            report.Problem(Exit::no_partner, "attempt",
                           *answers.begin() + " answers the SYN of a partner" + as +
                               " with its SYN_ACK, but does not finish: it does not see the ACK",
                           "restart " + *answers.begin());
    } catch (const Failure& failure) {
        report.Problem(failure.Code(), "attempt", failure.what(),
                       "the checks above say what to do");
    }
}
