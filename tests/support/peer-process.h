/// @file
/// The peer program (tests/programs/peer.cpp) as the other end of a channel.
#ifndef PELMAR_TESTS_PEER_PROCESS_H
#define PELMAR_TESTS_PEER_PROCESS_H

#include <string>
#include <vector>

#include "child-process.h"

/// A service or a client in a process of its own. Its lines are described in the program.
class PeerProcess : public ChildProcess {
public:
    enum class Role { service, client };

    PeerProcess(Role role, const std::string& channel, const std::vector<std::string>& options = {})
        : ChildProcess(Arguments(role, channel, options)), m_name(WaitForLine("name "))
    {
    }

    /// Its unique bus name. Its channel is constructed by then.
    const std::string& Name() const { return m_name; }

private:
    static std::vector<std::string> Arguments(Role role, const std::string& channel,
                                              const std::vector<std::string>& options)
    {
        std::vector<std::string> arguments{
            role == Role::service ? PELMAR_PEER_SERVICE : PELMAR_PEER_CLIENT, channel};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    std::string m_name;
};

#endif
