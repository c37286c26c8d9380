// The bridge on the service's machine: a client of the local channel.
#ifndef PELMAR_BRIDGE_ATTACH_SIDE_H
#define PELMAR_BRIDGE_ATTACH_SIDE_H

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bridge-side.h"
#include "presence-board.h"

class AttachSide final : public BridgeSide {
public:
    AttachSide(EventLoop& loop, const Options& options, const std::string& channel, Fatal fatal);

    void Start() override;
    void Stop() override;

private:
    // From an offering bridge, taken but not yet handed to the service.
    struct Inbound {
        std::string from;
        MqttMessage message;
        ByteBudget::Share share;
    };

    // BridgeSide
    std::vector<std::string> Subscriptions(const std::string& session) const override;
    void OnSessionStart() override;
    void OnSessionEnd() override;
    void OnMessage(const std::vector<std::string>& levels, MqttMessage& message) override;
    void OnTick() override;

    void SetHandlers();
    void OnServiceReady(const PelmarEndpoint::Partner& service);
    void OnServiceLost(const PelmarEndpoint::Partner& service);
    void OnNotification(Bytes data);

    void OnServiceState(const std::string& session, const MqttMessage& state);
    void OnOfferState(const std::string& session, const MqttMessage& state);
    bool MustYield() const;
    bool IsLoop() const;
    std::string Obstacle() const;
    void Decide();

    void OnUp(const std::string& from, MqttMessage& message);
    void Welcome(const std::string& from, const MqttMessage& greeting);
    void Take(const std::string& from, MqttMessage& message);
    void HandleInbox();
    void Execute(Inbound request);
    void Notify(Inbound notification);
    void Answer(const std::string& to, const std::string& correlation,
                PelmarEndpoint::Response response);
    void AnswerFailure(const Inbound& request, const std::string& text);

    std::vector<PelmarEndpoint::Partner> m_services;  // in the order in which they became ready
    std::string m_bus;
    bool m_knows_others = false;
    PresenceBoard m_others;
    PresenceBoard m_offers;
    std::string m_reported_obstacle;
    std::map<std::string, SequenceMemory> m_senders;
    std::deque<Inbound> m_inbox;
    std::size_t m_running = 0;
    std::unique_ptr<PelmarEndpoint> m_endpoint;
};

#endif
