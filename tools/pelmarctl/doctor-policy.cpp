// doctor: who may be on the channel.
//
// May this user own the stage names? To try one is to pulse it, and whoever watches it takes the
// pulse for a stage of a handshake: no stage is harmless, since endpoints repair by them. The
// daemon has no question that is not an attempt, and a name that nobody watches tells nothing,
// because rules name the stage names one by one. So the answer comes from the daemon's own files,
// read as the daemon reads them. Only when everybody on the bus could be asked and nobody is on the
// channel is there nobody to be disturbed: then the names are tried, which also shows that the
// daemon has read its files.

#include <unistd.h>

#include "doctor.h"
#include "policy-check.h"
#include "session.h"
#include "stage-names.h"

namespace {

std::string InstallRemedy(const std::string& channel)
{
    return "pelmarctl policy " + channel +
           " --service-user U --client-user V > /etc/dbus-1/system.d/org.vaska.Pelmar." + channel +
           ".conf; then systemctl reload dbus";
}

bool AnyMentions(const Scene& scene)
{
    for (const PolicySection& section : scene.config.sections) {
        if (section.Mentions(scene.channel))
            return true;
    }
    return false;
}

void CheckWhoMayBe(Report& report, const Scene& scene)
{
    for (const ChannelRole role : BOTH_ROLES) {
        const auto accounts = WhoMayBe(scene.config, scene.channel, role);
        if (!accounts.empty())
            report.Good("rights", Joined(accounts) + " may be the " + NameOf(role));
        else
            report.Problem(Exit::refused, "rights",
                           std::string("nobody may be the ") + NameOf(role) +
                               ": the policy lets "
                               "nobody own its names, root included" +
                               (AnyMentions(scene) ? "" : "; no file mentions the channel"),
                           InstallRemedy(scene.channel));
    }
}

// A member whose role shows has to be allowed that one, any other at least one.
bool IsAllowed(const Scene& scene, const std::string& name, const Identity& identity)
{
    bool any_role_shows = false;
    bool any_allowed = false;
    for (const ChannelRole role : BOTH_ROLES) {
        const bool allowed = MayBe(scene.config, identity, scene.channel, role);
        const bool shows = scene.rules && scene.rules->TakesPart(name, scene.channel, role);
        if (shows && !allowed)
            return false;
        any_role_shows = any_role_shows || shows;
        any_allowed = any_allowed || allowed;
    }
    return any_role_shows || any_allowed;
}

void CheckMembersRights(Report& report, const Scene& scene)
{
    for (const std::string& name : scene.Members()) {
        const Credentials credentials = scene.bus.CredentialsOf(name);
        if (credentials.uid && !IsAllowed(scene, name, IdentityOf(*credentials.uid)))
            report.Problem(Exit::refused, "rights",
                           Describe(scene.bus, name) +
                               " is on the channel, but the policy does not let user " +
                               UserName(*credentials.uid) + " own the names of its side",
                           "run it as a user that may, or " + InstallRemedy(scene.channel));
    }
}

void CheckOwnRights(Report& report, const Scene& scene)
{
    const Identity self = IdentityOf(geteuid());
    std::vector<std::string> roles;
    for (const ChannelRole role : BOTH_ROLES) {
        if (MayBe(scene.config, self, scene.channel, role))
            roles.emplace_back(std::string("the ") + NameOf(role));
    }
    report.Good("rights", "this user, " + self.user + ", may be " +
                              (roles.empty() ? "neither side" : Joined(roles)));
}

// It is no fault to stay on the bus.
void CheckDirectPaths(Report& report, const Scene& scene)
{
    if (WhoMayBe(scene.config, scene.channel, ChannelRole::client).empty())
        return;
    report.Good("path", MayOpenPaths(scene.config, scene.channel)
                            ? "two endpoints may send past the bus"
                            : "all traffic takes the bus: the policy lets no client ask for a "
                              "direct path; for that, renew it: " +
                                  InstallRemedy(scene.channel));
}

bool NobodyWouldSee(const Scene& scene)
{
    return scene.Members().empty() && scene.survey.refused == 0 && scene.survey.silent.empty();
}

void TryNames(Report& report, const Scene& scene)
{
    const Identity self = IdentityOf(geteuid());
    const bool knows_files = !scene.config.files.empty();
    for (const ChannelRole role : BOTH_ROLES) {
        const bool may = scene.bus.MayOwn(SynNameOf(scene.channel, role));
        const bool should = MayBe(scene.config, self, scene.channel, role);
        if (knows_files && may != should)
            report.Problem(
                Exit::refused, "rights",
                std::string("the bus ") + (may ? "lets" : "does not let") + " this user be the " +
                    NameOf(role) +
                    ", and its files say otherwise: it has not read them as they are now",
                "systemctl reload dbus");
        else if (!knows_files && !may)
            report.Problem(
                Exit::refused, "rights",
                "the bus does not let this user, " + self.user + ", be the " + NameOf(role),
                InstallRemedy(scene.channel));
    }
}

}  // namespace

void CheckPolicyFiles(Report& report, const Scene& scene)
{
    if (scene.config.files.empty()) {
        report.Unknown("policy", "the bus's configuration cannot be read");
        return;
    }
    for (const std::string& fault : scene.config.faults)
        report.Problem(Exit::failure, "policy", fault,
                       "the bus passes over the file until that is mended");
    const auto unknown = UnknownAccounts(scene.config);
    for (const Complaint& complaint : unknown)
        report.Problem(Exit::refused, "policy", complaint.where + ": " + complaint.text,
                       complaint.remedy);
    if (unknown.empty() && scene.config.faults.empty())
        report.Good("policy", Count(scene.config.files.size(), "file") + " read, " +
                                  Count(scene.config.Channels().size(), "channel") + " mentioned");
}

void CheckRights(Report& report, const Scene& scene)
{
    if (!scene.config.files.empty()) {
        CheckWhoMayBe(report, scene);
        CheckMembersRights(report, scene);
        CheckOwnRights(report, scene);
        CheckDirectPaths(report, scene);
    }
    if (NobodyWouldSee(scene))
        TryNames(report, scene);
    else if (scene.config.files.empty())
        report.Unknown("rights",
                       "who may own the names cannot be found out without a pulse that "
                       "the members would see (--as does it)");
}
