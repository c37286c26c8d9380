// What a channel may be called and what it is called on the bus, whichever the role. Internal.
#ifndef PELMAR_CHANNEL_NAMES_H
#define PELMAR_CHANNEL_NAMES_H

#include <glib.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <string>

#include "channel-stage.h"

// What the channel's class keeps to itself; a test compares the two.
constexpr const char* CHANNEL_NAME_PREFIX = "org.vaska.Pelmar";
constexpr const char* CHANNEL_OBJECT_ROOT = "/org/vaska/pelmar/CommunicationChannel";
constexpr const char* DIRECT_PATH_INTERFACE = "org.vaska.pelmar.DirectPath1";
constexpr const char* CHANNEL_INTERFACE = "org.vaska.pelmar.DbusCommunication";
constexpr const char* CHANNEL_METHOD = "Send";
constexpr const char* CHANNEL_SIGNAL = "SendSignal";

// The bus names that one side of a channel pulses, by stage.
using ChannelStageNames = std::array<std::string, ALL_STAGES.size()>;

inline ChannelStageNames StageNamesOf(const std::string& channel, ChannelRole role)
{
    const std::string base = std::string(CHANNEL_NAME_PREFIX) + "." + channel +
                             (role == ChannelRole::service ? "_SERVICE" : "_CLIENT");
    return {base + "_SYN", base + "_SYN_ACK", base + "_ACK"};
}

inline std::string ObjectPathOf(const std::string& channel)
{
    return std::string(CHANNEL_OBJECT_ROOT) + "/" + channel;
}

// What fits into a bus name together with the longest suffix.
constexpr std::size_t LONGEST_CHANNEL_NAME = 222;

// A character as it can be shown in a text.
inline std::string Shown(char character)
{
    if (g_ascii_isprint(character))
        return {character};
    char text[5];
    std::snprintf(text, sizeof(text), "\\x%02x", static_cast<unsigned>(character) & 0xffU);
    return text;
}

// The letters of the name as they are, also those that no channel name may have.
inline std::string Shown(const std::string& name)
{
    std::string shown;
    for (const char character : name)
        shown += g_ascii_iscntrl(character) ? Shown(character) : std::string(1, character);
    return shown;
}

// What is wrong with a channel's name, and the remedy; empty when nothing is.
inline std::string FaultInChannelName(const std::string& name)
{
    const auto fault = [&name](const std::string& what) {
        return "channel name '" + Shown(name) + "' " + what +
               "; use 1 to 222 letters, digits and underscores, the first not a digit";
    };
    if (name.empty())
        return fault("is empty");
    if (name.size() > LONGEST_CHANNEL_NAME)
        return fault("has " + std::to_string(name.size()) + " characters");
    if (g_ascii_isdigit(name.front()))
        return fault("begins with a digit");
    for (const char character : name) {
        if (!g_ascii_isalnum(character) && character != '_')
            return fault("contains '" + Shown(character) + "'");
    }
    return {};
}

#endif
