/// @file
/// The one client that all servers answer: synchronous, and as cheap as there is.
#ifndef PELMAR_BENCH_ECHO_CLIENT_H
#define PELMAR_BENCH_ECHO_CLIENT_H

#include <memory>
#include <string>
#include <vector>

class EchoClient {
public:
    using Bytes = std::vector<char>;

    virtual ~EchoClient() = default;

    /// One round trip. Throws std::runtime_error when the answer is not as long as the question.
    virtual void Call(const Bytes& data) = 0;
};

/// Calls Send of the channel's object at `destination`, by sd-bus on a connection of its own.
std::unique_ptr<EchoClient> ClientOnTheBus(const std::string& destination,
                                           const std::string& channel);

/// Of serve-unix-socket.
std::unique_ptr<EchoClient> ClientOfSocket(const std::string& path);

#endif
