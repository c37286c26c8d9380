#include "stage-names.h"

#include "channel-scheme.h"

namespace {

// This source is compiled in the service's role: its own names are the service's.
std::array<std::string, ALL_STAGES.size()> NamesOf(const std::string& channel,
                                                   PelmarEndpoint::Role role)
{
    const ChannelNames names = PelmarChannelAccess::NamesOf(channel);
    return role == PelmarEndpoint::Role::service ? names.own : names.peer;
}

bool EndsWith(const std::string& text, const std::string& end)
{
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

const char* NameOf(PelmarEndpoint::Role role)
{
    return role == PelmarEndpoint::Role::service ? "service" : "client";
}

PelmarEndpoint::Role OtherRole(PelmarEndpoint::Role role)
{
    using Role = PelmarEndpoint::Role;
    return role == Role::service ? Role::client : Role::service;
}

StageNames::StageNames(const std::string& channel, PelmarEndpoint::Role role)
    : m_names(NamesOf(channel, role))
{
}

const char* NameOf(Stage stage)
{
    constexpr std::array<const char*, ALL_STAGES.size()> names = {"SYN", "SYN_ACK", "ACK"};
    return names[IndexOf(stage)];
}

std::optional<StageName> ParseStageName(const std::string& name)
{
    const std::string prefix = std::string(PelmarChannelAccess::NAME_PREFIX) + ".";
    if (name.compare(0, prefix.size(), prefix) != 0)
        return std::nullopt;
    const std::string rest = name.substr(prefix.size());
    for (const PelmarEndpoint::Role role : BOTH_ROLES) {
        for (const Stage stage : ALL_STAGES) {
            const std::string suffix = StageNames("", role)[stage].substr(prefix.size());
            if (EndsWith(rest, suffix))
                return StageName{rest.substr(0, rest.size() - suffix.size()), role, stage};
        }
    }
    return std::nullopt;
}

std::string ObjectPath(const std::string& channel)
{
    return PelmarChannelAccess::NamesOf(channel).object_path;
}

const char* ObjectRoot()
{
    return PelmarChannelAccess::OBJECT_ROOT;
}

const char* ChannelInterface()
{
    static const std::string interface = PelmarChannelAccess::NamesOf("").interface;
    return interface.c_str();
}
