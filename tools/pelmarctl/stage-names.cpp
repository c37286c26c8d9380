#include "stage-names.h"

namespace {

bool EndsWith(const std::string& text, const std::string& end)
{
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

const char* NameOf(ChannelRole role)
{
    return role == ChannelRole::service ? "service" : "client";
}

const char* NameOf(Stage stage)
{
    constexpr std::array<const char*, ALL_STAGES.size()> names = {"SYN", "SYN_ACK", "ACK"};
    return names[IndexOf(stage)];
}

std::string SynNameOf(const std::string& channel, ChannelRole role)
{
    return StageNamesOf(channel, role)[IndexOf(Stage::syn)];
}

std::optional<StageName> ParseStageName(const std::string& name)
{
    const std::string prefix = std::string(CHANNEL_NAME_PREFIX) + ".";
    if (name.compare(0, prefix.size(), prefix) != 0)
        return std::nullopt;
    const std::string rest = name.substr(prefix.size());
    for (const ChannelRole role : BOTH_ROLES) {
        const ChannelStageNames nameless = StageNamesOf("", role);
        for (const Stage stage : ALL_STAGES) {
            const std::string suffix = nameless[IndexOf(stage)].substr(prefix.size());
            if (EndsWith(rest, suffix))
                return StageName{rest.substr(0, rest.size() - suffix.size()), role, stage};
        }
    }
    return std::nullopt;
}
