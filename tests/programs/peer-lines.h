// The lines in which the peer programs tell what happens to them: an event and its value, payloads
// in hexadecimal.
#ifndef PELMAR_TESTS_PEER_LINES_H
#define PELMAR_TESTS_PEER_LINES_H

#include <csignal>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

using Bytes = std::vector<char>;

inline void Say(const std::string& event, const std::string& value)
{
    std::cout << event + " " + value + "\n" << std::flush;
}

inline std::string Hex(const Bytes& data)
{
    std::string text;
    char digits[3];
    for (const char byte : data) {
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(byte) & 0xffU);
        text += digits;
    }
    return text;
}

inline Bytes Unhex(const std::string& text)
{
    Bytes data;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        data.push_back(static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return data;
}

// A line of input: COMMAND [PARTNER] [HEX]; which commands name a partner is common to all
// programs.
struct Command {
    explicit Command(const std::string& line)
    {
        std::istringstream words(line);
        std::string payload;
        words >> name;
        if (name == "notify-to" || name == "send")
            words >> partner;
        words >> payload;
        data = Unhex(payload);
    }

    std::string name;
    std::string partner;
    Bytes data;
};

// A message's answer: the message backwards, so that it cannot be mistaken for the message. A
// message of the four letters "stop" stops the whole process here, inside its handler, until a
// SIGCONT comes.
inline Bytes AnswerTo(const Bytes& data)
{
    if (std::string(data.begin(), data.end()) == "stop") {
        Say("stopping", "");
        raise(SIGSTOP);
    }
    return Bytes(data.rbegin(), data.rend());
}

// With the option --wait a program constructs its channel only when it is told to.
inline void WaitForGo(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) != "--wait")
            continue;
        Say("waiting", "");
        std::string line;
        std::getline(std::cin, line);
    }
}

#endif
