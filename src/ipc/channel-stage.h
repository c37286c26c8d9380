// The two sides of a channel and the three stages of their handshake. Internal.
#ifndef PELMAR_CHANNEL_STAGE_H
#define PELMAR_CHANNEL_STAGE_H

#include <array>
#include <cstddef>

enum class ChannelRole { service, client };

constexpr ChannelRole OtherRole(ChannelRole role)
{
    return role == ChannelRole::service ? ChannelRole::client : ChannelRole::service;
}

// The three stages of the handshake.
enum class Stage : std::size_t { syn, syn_ack, ack };

constexpr std::array<Stage, 3> ALL_STAGES = {Stage::syn, Stage::syn_ack, Stage::ack};

constexpr std::size_t IndexOf(Stage stage)
{
    return static_cast<std::size_t>(stage);
}

#endif
