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
    using Partner = PelmarEndpoint::Partner;
    using Response = PelmarEndpoint::Response;

    // Nothing is on the bus yet.
    Session(Tool& tool, const std::string& channel, ChannelRole role);

    // Takes the endpoint off the channel; what it still had to say is on the bus afterwards.
    ~Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Its handlers for traffic may be set before Start; the others are the session's. They run in
    // the main thread, inside a wait of the queue. What they throw does not come out of that: what
    // may fail is to be posted to the queue.
    PelmarEndpoint& Endpoint() { return m_endpoint; }

    // To be set before Start. What these throw comes out of the queue.
    void OnReady(std::function<void(const Partner& partner)> handler);
    void OnLost(std::function<void(const Partner& partner)> handler);

    // Comes onto the channel. Throws Failure when the bus cannot be reached; when it refuses the
    // channel's names, or dies, that comes out of the queue.
    void Start();

    // Which of the ready partners are meant: `name`, all, or else the only one. Waits until they
    // are there; throws Failure when they do not come, or when there are several for the only one.
    std::vector<Partner> AwaitPartners(const std::string& name, bool all);

    // Asks all at the same time; the responses in the partners' order. Throws Failure when the bus
    // goes meanwhile.
    std::vector<Response> Request(const Bytes& data, const std::vector<Partner>& partners,
                                  std::chrono::milliseconds timeout);

private:
    using PartnerHandler = std::function<void(const Partner& partner)>;

    void SeeReady(const Partner& partner);
    void SeeLost(const Partner& partner);
    void SeeProblem(PelmarEndpoint::Problem problem, const std::string& text);
    Partner AwaitNamedPartner(const std::string& name, EventQueue::Deadline deadline);
    std::vector<Partner> AwaitAnyPartners(EventQueue::Deadline deadline);

    Tool& m_tool;
    const std::string m_channel;
    const ChannelRole m_role;
    PartnerHandler m_on_ready;
    PartnerHandler m_on_lost;
    EventQueue::Clock::time_point m_last_ready;
    PelmarEndpoint m_endpoint;  // last: its handlers use the others
};

// How a command ends to which this status came.
Exit ExitOf(PelmarEndpoint::Status status);

// Throws Failure unless the status is ok. What was done with whom, and what came of it.
void Require(PelmarEndpoint::Status status, const PelmarEndpoint::Partner& partner,
             const std::string& error);

#endif
