#include "policy-check.h"

#include <algorithm>
#include <set>
#include <utility>

#include "session.h"
#include "stage-names.h"

namespace {

// No account has this name.
const char* const STRANGER = "/";

std::string At(const std::string& file, int line)
{
    return file + ":" + std::to_string(line);
}

// The stock system bus lets nobody own a name or call a method, and everybody send signals.
BusConfig OnTheStockBus(const BusConfig& config)
{
    BusConfig whole = config;
    PolicySection stock;
    stock.rules = {{false, {{"own", "*"}}, 0},
                   {false, {{"send_type", "method_call"}}, 0},
                   {true, {{"send_type", "signal"}}, 0}};
    whole.sections.insert(whole.sections.begin(), stock);
    return whole;
}

Identity IdentityOf(const PolicySection& section)
{
    if (section.context == PolicySection::Context::group)
        return {std::nullopt, STRANGER, {section.account}};
    return {std::nullopt, section.account.empty() ? STRANGER : section.account, {}};
}

bool NamesPelmar(const std::string& name)
{
    const std::string prefix = CHANNEL_NAME_PREFIX;
    return name.compare(0, prefix.size(), prefix) == 0;
}

class Checker {
public:
    Checker(const BusConfig& config, std::string file, std::string channel)
        : m_config(OnTheStockBus(config)), m_file(std::move(file)), m_channel(std::move(channel))
    {
    }

    std::vector<Complaint> Check()
    {
        for (const std::string& fault : m_config.faults)
            Complain(fault, "", "the bus passes over the whole file until that is mended");
        if (m_config.faults.empty()) {
            const std::vector<Complaint> unknown = UnknownAccounts(m_config);
            m_complaints.insert(m_complaints.end(), unknown.begin(), unknown.end());
            CheckRules();
            CheckSides();
            CheckStrangers();
        }
        return std::move(m_complaints);
    }

private:
    void Complain(const std::string& where, const std::string& text, const std::string& remedy)
    {
        m_complaints.push_back({where, text, remedy});
    }

    void CheckRules()
    {
        for (const PolicySection& section : m_config.sections) {
            for (const PolicyRule& rule : section.rules)
                CheckRule(At(section.file, rule.line), rule);
        }
    }

    void CheckRule(const std::string& where, const PolicyRule& rule)
    {
        const std::string own = rule.Get("own");
        if (NamesPelmar(own) && !ParseStageName(own))
            Complain(where, "own=\"" + own + "\" is no name that a channel uses",
                     "list the three stage names of the side");
        if (NamesPelmar(rule.Get("own_prefix")))
            Complain(where,
                     "own_prefix covers what follows a dot, and a stage name goes on after "
                     "the channel's name with an underscore",
                     "list the three stage names of the side");
        if (NamesPelmar(rule.Get("send_destination")))
            Complain(where,
                     "send_destination matches only while the partner owns that name, which "
                     "is for a moment",
                     "go by send_type, send_path, send_interface and send_member");
        if (rule.Has("send_destination_prefix"))
            Complain(where, "send_destination_prefix is not known to every bus daemon",
                     "go by send_type, send_path, send_interface and send_member");
        if (!rule.allows && rule.Has("send_interface") && !rule.Has("send_type") &&
            !rule.Has("send_destination"))
            Complain(where,
                     "this denial hits every message without an interface as well, whoever "
                     "sends it",
                     "add send_type");
    }

    void CheckSides()
    {
        bool any_calls = false;
        for (const ChannelRole role : BOTH_ROLES) {
            std::set<std::string> seen;
            for (const PolicySection& section : m_config.sections) {
                if (IsSide(section, role) && seen.insert(section.Who()).second)
                    any_calls = CheckSide(section, role) || any_calls;
            }
            if (seen.empty())
                ComplainOfNobody(role);
        }
        if (!any_calls)
            Complain(m_file, "nobody may call Send on channel " + m_channel,
                     "allow send_type=\"method_call\" with send_path=\"" + ObjectPathOf(m_channel) +
                         "\"");
    }

    void ComplainOfNobody(ChannelRole role)
    {
        Complain(m_file,
                 std::string("nobody may be the ") + NameOf(role) + " of channel " + m_channel,
                 "allow a user or a group to own " + SynNameOf(m_channel, role) +
                     " and the other two names");
    }

    bool IsSide(const PolicySection& section, ChannelRole role) const
    {
        const auto names = StageNamesOf(m_channel, role);
        return std::any_of(section.rules.begin(), section.rules.end(), [&](const PolicyRule& rule) {
            return rule.allows &&
                   std::find(names.begin(), names.end(), rule.Get("own")) != names.end();
        });
    }

    // Whether it may call Send.
    bool CheckSide(const PolicySection& section, ChannelRole role)
    {
        const Identity identity = IdentityOf(section);
        const std::string where = At(section.file, section.line);
        const std::string who = section.Who();
        for (const std::string& name : StageNamesOf(m_channel, role)) {
            if (!m_config.Allows(identity, PolicyQuestion::Own(name)))
                Complain(where, who + " may not own " + name, "allow own=\"" + name + "\" too");
        }
        const bool calls = m_config.Allows(identity, PolicyQuestion::Send(m_channel));
        if (!calls && !m_config.Allows(identity, PolicyQuestion::Signal(m_channel)))
            Complain(where, who + " may send neither messages nor notifications",
                     "allow Send and SendSignal for send_path=\"" + ObjectPathOf(m_channel) + "\"");
        return calls;
    }

    void CheckStrangers()
    {
        const Identity stranger{std::nullopt, STRANGER, {}};
        for (const ChannelRole role : BOTH_ROLES) {
            if (m_config.Allows(stranger, PolicyQuestion::Own(SynNameOf(m_channel, role))))
                Complain(m_file, std::string("everybody may be the ") + NameOf(role),
                         "allow the names in a policy for a user or a group");
        }
        if (m_config.Allows(stranger, PolicyQuestion::Send(m_channel)))
            Complain(m_file, "everybody may call Send",
                     "allow it in a policy for a user or a group");
        if (m_config.Allows(stranger, PolicyQuestion::Signal(m_channel)))
            Complain(m_file, "everybody may send the two sides signals",
                     std::string("deny send_type=\"signal\" with send_interface=\"") +
                         CHANNEL_INTERFACE + "\" by default, and allow it to the sides");
    }

    const BusConfig m_config;
    const std::string m_file;
    const std::string m_channel;
    std::vector<Complaint> m_complaints;
};

}  // namespace

std::vector<Complaint> CheckPolicy(const BusConfig& config, const std::string& file,
                                   const std::string& channel)
{
    return Checker(config, file, channel).Check();
}

bool MayOpenPaths(const BusConfig& config, const std::string& channel)
{
    const BusConfig whole = OnTheStockBus(config);
    return std::any_of(config.sections.begin(), config.sections.end(),
                       [&](const PolicySection& section) {
                           const Identity identity = IdentityOf(section);
                           return MayBe(config, identity, channel, ChannelRole::client) &&
                                  whole.Allows(identity, PolicyQuestion::OpenPath(channel));
                       });
}

std::vector<Complaint> UnknownAccounts(const BusConfig& config)
{
    std::vector<Complaint> complaints;
    for (const PolicySection& section : config.sections) {
        const bool concerns_channels = std::any_of(
            section.rules.begin(), section.rules.end(),
            [](const PolicyRule& rule) { return ParseStageName(rule.Get("own")).has_value(); });
        if (concerns_channels && !section.AccountExists())
            complaints.push_back(
                {At(section.file, section.line),
                 section.Who() + " does not exist: the bus passes over these rules",
                 "create the account or correct its name, then reload the bus"});
    }
    return complaints;
}

bool MayBe(const BusConfig& config, const Identity& identity, const std::string& channel,
           ChannelRole role)
{
    const auto names = StageNamesOf(channel, role);
    return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        return config.Allows(identity, PolicyQuestion::Own(name));
    });
}

std::vector<std::string> WhoMayBe(const BusConfig& config, const std::string& channel,
                                  ChannelRole role)
{
    if (MayBe(config, {std::nullopt, STRANGER, {}}, channel, role))
        return {"everybody"};
    std::vector<std::string> accounts;
    for (const PolicySection& section : config.sections) {
        const std::string who = section.Who();
        if (!section.account.empty() && section.AccountExists() &&
            MayBe(config, IdentityOf(section), channel, role) &&
            std::find(accounts.begin(), accounts.end(), who) == accounts.end())
            accounts.push_back(who);
    }
    return accounts;
}
