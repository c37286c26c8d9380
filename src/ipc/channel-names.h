// What a channel may be called and what it is called on the bus, whichever the role. Internal.
#ifndef PELMAR_CHANNEL_NAMES_H
#define PELMAR_CHANNEL_NAMES_H

#include <glib.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <string>

// The bus names of a channel's stages (SYN, SYN_ACK, ACK) and where its object is.
struct ChannelNames {
    std::array<std::string, 3> own;
    std::array<std::string, 3> peer;
    std::string object_path;
    std::string interface;
};

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
