/// @file
/// The endpoint program (tests/programs/endpoint-peer.cpp) as the other end of a channel.
#ifndef PELMAR_TESTS_ENDPOINT_PROCESS_H
#define PELMAR_TESTS_ENDPOINT_PROCESS_H

#include <string>
#include <vector>

#include "child-process.h"

/// A service or a client in a process of its own. Its lines are described in the program.
class EndpointProcess : public ChildProcess {
public:
    EndpointProcess(const std::string& role, const std::string& channel,
                    const std::vector<std::string>& options = {})
        : ChildProcess(Arguments(role, channel, options))
    {
        WaitForLine("on ");
    }

private:
    static std::vector<std::string> Arguments(const std::string& role, const std::string& channel,
                                              const std::vector<std::string>& options)
    {
        std::vector<std::string> arguments{PELMAR_ENDPOINT_PEER, role, channel};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }
};

#endif
