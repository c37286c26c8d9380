/// @file
/// A partner that costs next to nothing: it does the client's half of the handshake, answers what a
/// server asks of a partner's object, and counts the notifications that reach it.
#ifndef PELMAR_BENCH_RECEIVER_H
#define PELMAR_BENCH_RECEIVER_H

#include <string>

#include "sd-handles.h"
#include "server-process.h"

/// Acquires the name and releases it at once.
void Pulse(sd_bus* bus, const std::string& name);

class Receiver {
public:
    Receiver();

    /// Becomes a partner of the server; returns when the server knows.
    void Join(ServerProcess& server);

    /// Waits until `count` notifications have come since the last call.
    void Await(unsigned count);

private:
    void ShakeHands(const std::string& channel);
    void AnswerUntilReady(ChildProcess& server);
    bool Process();

    BusPtr m_bus;
    std::string m_name;
    unsigned m_received = 0;
};

#endif
