// The bridge on a client's machine: the service of the local channel, for as long as the real one
// is there.
#ifndef PELMAR_BRIDGE_OFFER_SIDE_H
#define PELMAR_BRIDGE_OFFER_SIDE_H

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bridge-side.h"
#include "presence-board.h"

class OfferSide final : public BridgeSide {
public:
    OfferSide(EventLoop& loop, const Options& options, const std::string& channel, Fatal fatal);

private:
    using Clock = std::chrono::steady_clock;

    struct Pending {
        PelmarEndpoint::Reply reply;
        Clock::time_point deadline;
    };

    // BridgeSide
    std::vector<std::string> Subscriptions(const std::string& session) const override;
    void OnSessionStart() override {}
    void OnSessionEnd() override;
    void OnMessage(const std::vector<std::string>& levels, MqttMessage& message) override;
    void OnTick() override;

    void Decide();
    void GreetAll();
    void Greet(const std::string& service);
    void Join(const std::string& service, const MqttMessage& welcome);
    void Leave(const std::string& reason);

    void SetHandlers();
    void TakeCall(Bytes data, const PelmarEndpoint::Reply& reply);
    void TakeNotification(Bytes data);
    void SendRequest(Bytes data, const PelmarEndpoint::Reply& reply, ByteBudget::Share share);
    void OnReply(const std::string& from, MqttMessage& message);
    void OnAnswer(MqttMessage& message);
    void OnNotification(MqttMessage& message);
    void FailPending(std::uint64_t number, const std::string& text);
    void ExpirePending();

    PresenceBoard m_services;
    std::string m_bus;
    int m_unanswered_greetings = 0;
    bool m_reported_loop = false;

    // While joined.
    std::string m_service;  // the session of the bridge that has it; empty: not joined
    SequenceMemory m_received;
    std::int64_t m_clock_offset = 0;  // from this machine's clock to the other's, or less
    Clock::time_point m_greet_again_at;
    std::map<std::uint64_t, Pending> m_pending;
    std::unique_ptr<PelmarEndpoint> m_endpoint;
};

#endif
