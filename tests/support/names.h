/// @file
/// The bus names, path and interface of a channel, spelled out once for all tests. A test that is
/// compiled with PELMAR_ROLE_CLIENT has the client as its own side.
#ifndef PELMAR_TESTS_NAMES_H
#define PELMAR_TESTS_NAMES_H

#include <string>

namespace names {

#ifdef PELMAR_ROLE_CLIENT
inline const std::string OWN_SIDE = "_CLIENT";
inline const std::string PEER_SIDE = "_SERVICE";
#else
inline const std::string OWN_SIDE = "_SERVICE";
inline const std::string PEER_SIDE = "_CLIENT";
#endif

inline const std::string SYN = "_SYN";
inline const std::string SYN_ACK = "_SYN_ACK";
inline const std::string ACK = "_ACK";

inline const std::string INTERFACE = "org.vaska.pelmar.DbusCommunication";

inline std::string Base(const std::string& channel)
{
    return "org.vaska.Pelmar." + channel;
}

/// The name that this side's channel pulses for a stage, and the one that its peer does.
inline std::string Own(const std::string& channel, const std::string& stage)
{
    return Base(channel) + OWN_SIDE + stage;
}
inline std::string Peer(const std::string& channel, const std::string& stage)
{
    return Base(channel) + PEER_SIDE + stage;
}

inline std::string Path(const std::string& channel)
{
    return "/org/vaska/pelmar/CommunicationChannel/" + channel;
}

}  // namespace names

#endif
