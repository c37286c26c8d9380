// The bus names of a channel's stages, by role; and back from a name to what it announces.
#ifndef PELMARCTL_STAGE_NAMES_H
#define PELMARCTL_STAGE_NAMES_H

#include <array>
#include <optional>
#include <string>

#include "pelmar-endpoint.h"
#include "stage.h"

constexpr std::array<PelmarEndpoint::Role, 2> BOTH_ROLES = {PelmarEndpoint::Role::service,
                                                            PelmarEndpoint::Role::client};

// "service", "client".
const char* NameOf(PelmarEndpoint::Role role);
PelmarEndpoint::Role OtherRole(PelmarEndpoint::Role role);

class StageNames {
public:
    StageNames(const std::string& channel, PelmarEndpoint::Role role);

    const std::string& operator[](Stage stage) const { return m_names[IndexOf(stage)]; }
    // By value: to be looped over where the names are made.
    std::array<std::string, ALL_STAGES.size()> All() const { return m_names; }

private:
    std::array<std::string, ALL_STAGES.size()> m_names;
};

// "SYN", "SYN_ACK", "ACK".
const char* NameOf(Stage stage);

// What a stage name announces.
struct StageName {
    std::string channel;
    PelmarEndpoint::Role role;
    Stage stage;
};
std::optional<StageName> ParseStageName(const std::string& name);

// Where a channel's object is, and below what all such objects are.
std::string ObjectPath(const std::string& channel);
const char* ObjectRoot();
const char* ChannelInterface();

#endif
