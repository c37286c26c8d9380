// One end of a channel, for a command: its endpoint, with everything that it reports dealt with in
// the main thread.
#ifndef PELMARCTL_SESSION_H
#define PELMARCTL_SESSION_H

#include <functional>
#include <string>
#include <vector>

#include "bus.h"
#include "failure.h"
#include "pelmar-endpoint.h"
#include "stage-names.h"
#include "tool.h"

class Session {
public:
    using Bytes = PelmarEndpoint::Bytes;
    using Response = PelmarEndpoint::Response;
    using Role = PelmarEndpoint::Role;

    // `ready` and `lost` are called by the main thread, inside a wait of the queue; the other
    // handlers by the endpoint's. Throws Failure when the bus cannot be reached; when it refuses
    // the channel's names, or dies, that comes out of the queue.
    Session(Tool& tool, const std::string& channel, Role role,
            PelmarEndpoint::Handlers handlers = {});

    // Takes the endpoint off the channel; what it still had to say is on the bus afterwards.
    ~Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    PelmarEndpoint& Endpoint() { return *m_endpoint; }
    Bus& TheBus() { return m_bus; }

    // Which of the ready partners are meant: `name`, all, or else the only one. Waits until they
    // are there; throws Failure when they do not come, or when there are several for the only one.
    std::vector<std::string> AwaitPartners(const std::string& name, bool all);

    // Asks all at the same time; the responses in the partners' order.
    std::vector<Response> Request(const Bytes& data, const std::vector<std::string>& partners,
                                  std::chrono::milliseconds timeout);

private:
    void OnReady(const std::string& partner);
    void OnLost(const std::string& partner);
    void OnProblem(const std::string& text);
    void AwaitNamedPartner(const std::string& name, EventQueue::Deadline deadline);
    std::vector<std::string> AwaitAnyPartners(EventQueue::Deadline deadline);

    Tool& m_tool;
    const std::string m_channel;
    const Role m_role;
    Bus m_bus;
    PelmarEndpoint::Handlers m_handlers;
    EventQueue::Clock::time_point m_last_ready;
    std::unique_ptr<PelmarEndpoint> m_endpoint;  // last: its handlers use the others
};

// How a command ends to which this status came.
Exit ExitOf(PelmarEndpoint::Status status);

// Throws Failure unless the status is ok. What was done with whom, and what came of it.
void Require(PelmarEndpoint::Status status, const std::string& partner, const std::string& error);

#endif
