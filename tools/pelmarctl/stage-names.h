// What roles and stages are called, and what a stage name on the bus announces.
#ifndef PELMARCTL_STAGE_NAMES_H
#define PELMARCTL_STAGE_NAMES_H

#include <array>
#include <optional>
#include <string>

#include "channel-names.h"

constexpr std::array<ChannelRole, 2> BOTH_ROLES = {ChannelRole::service, ChannelRole::client};

// "service", "client".
const char* NameOf(ChannelRole role);

// "SYN", "SYN_ACK", "ACK".
const char* NameOf(Stage stage);

// The first stage's name: who may own it may begin a handshake.
std::string SynNameOf(const std::string& channel, ChannelRole role);

struct StageName {
    std::string channel;
    ChannelRole role;
    Stage stage;
};
std::optional<StageName> ParseStageName(const std::string& name);

#endif
