// The three stages of the handshake, as the endpoint counts them. Internal.
#ifndef PELMAR_STAGE_H
#define PELMAR_STAGE_H

#include <array>
#include <cstddef>

enum class Stage : std::size_t { syn, syn_ack, ack };

constexpr std::array<Stage, 3> ALL_STAGES = {Stage::syn, Stage::syn_ack, Stage::ack};

constexpr std::size_t IndexOf(Stage stage)
{
    return static_cast<std::size_t>(stage);
}

#endif
