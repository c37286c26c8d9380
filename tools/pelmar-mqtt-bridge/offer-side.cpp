#include "offer-side.h"

#include <algorithm>
#include <utility>

#include "bus-id.h"
#include "report.h"

namespace {

constexpr int PATIENT_GREETINGS = 5;

}  // namespace

OfferSide::OfferSide(EventLoop& loop, const Options& options, const std::string& channel,
                     Fatal fatal)
    : BridgeSide(loop, options, channel, "offer", std::move(fatal))
{
}

std::vector<std::string> OfferSide::Subscriptions(const std::string& session) const
{
    const Topics& topics = GetTopics();
    return {topics.Make("service", "+"), topics.Make("reply", "+", session),
            topics.Make("down", "+")};
}

void OfferSide::OnSessionEnd()
{
    m_services.Clear();
    Leave(IsStopping() ? "the bridge ends" : "the connection to the broker is lost");
}

void OfferSide::OnMessage(const std::vector<std::string>& levels, MqttMessage& message)
{
    if (levels.size() == 2 && levels[0] == "service") {
        m_services.Take(levels[1], message);
        Decide();
    } else if (levels.size() == 3 && levels[0] == "reply") {
        OnReply(levels[1], message);
    } else if (levels.size() == 2 && levels[0] == "down" && levels[1] == m_service) {
        OnNotification(message);
    }
}

void OfferSide::OnTick()
{
    m_services.RemoveExpired();
    ExpirePending();
    Decide();
    if (!m_service.empty() && Clock::now() >= m_greet_again_at)
        Greet(m_service);
}

// ---- Finding the service -------------------------------------------------------------------

void OfferSide::Decide()
{
    if (!m_service.empty() && m_services.Present().count(m_service) == 0)
        Leave("the remote service is gone");
    if (m_service.empty() && !m_services.Present().empty())
        GreetAll();
}

// A state that the broker has kept says little: only a bridge that answers is there, and may be
// reached both ways.
void OfferSide::GreetAll()
{
    std::string error;
    m_bus = AskBusId(error).value_or("");
    if (m_bus.empty())
        return;
    for (const auto& [service, bus] : m_services.Present()) {
        if (bus != m_bus)
            Greet(service);
        else if (!std::exchange(m_reported_loop, true))
            report::Error(
                "refused: the service of the channel is on this very bus, so to offer it "
                "here would make a loop; stop this bridge or the other");
    }
}

void OfferSide::Greet(const std::string& service)
{
    m_greet_again_at = Clock::now() + GetOptions().broker.keep_alive;
    const std::string topic = GetTopics().Make("up", service, Session());
    Publish(NewNumberedMessage(topic, "greeting"), nullptr);
    if (m_service.empty() && ++m_unanswered_greetings == PATIENT_GREETINGS)
        report::Error("the bridge " + service +
                      " does not answer; is it running, and does the broker's access control let "
                      "this one write to " +
                      topic + " and read " + GetTopics().Make("reply", service, Session()) + "?");
}

void OfferSide::Join(const std::string& service, const MqttMessage& welcome)
{
    m_service = service;
    m_unanswered_greetings = 0;
    m_reported_loop = false;
    m_received = {};
    m_received.StartAfter(SequenceNumberOf(welcome));
    m_endpoint = NewEndpoint(PelmarEndpoint::Role::service);
    SetHandlers();
    StartEndpoint(*m_endpoint);
    Announce(m_bus);
    report::Info("the service is offered");
}

// With the endpoint the bridge leaves the bus, and its clients are told by the bus.
void OfferSide::Leave(const std::string& reason)
{
    if (m_service.empty())
        return;
    m_service.clear();
    for (const auto& [number, pending] : m_pending)
        pending.reply.Fail("the call was not answered: " + reason);
    m_pending.clear();
    m_endpoint.reset();
    if (HasSession())
        Unannounce();
    report::Info("the service is no longer offered: " + reason);
}

// ---- From the clients ----------------------------------------------------------------------

void OfferSide::SetHandlers()
{
    using Message = PelmarEndpoint::Message;
    m_endpoint->OnDeferredMessage([this](Message& message, const PelmarEndpoint::Reply& reply) {
        TakeCall(std::move(message.data), reply);
    });
    m_endpoint->OnNotification(
        [this](Message& message) { TakeNotification(std::move(message.data)); });
}

void OfferSide::TakeCall(Bytes data, const PelmarEndpoint::Reply& reply)
{
    ByteBudget::Share share = TakeRoom(data.size());
    if (share != nullptr) {
        SendRequest(std::move(data), reply, std::move(share));
        return;
    }
    Refuse("a call found the bridge's queue full");
    reply.Fail("the bridge's queue is full");
}

void OfferSide::TakeNotification(Bytes data)
{
    ByteBudget::Share share = TakeRoom(data.size());
    if (share != nullptr)
        CarryNotification(GetTopics().Make("up", m_service, Session()), std::move(data),
                          std::move(share));
    else
        Refuse("a notification found the bridge's queue full");
}

void OfferSide::SendRequest(Bytes data, const PelmarEndpoint::Reply& reply, ByteBudget::Share share)
{
    const std::string too_large = TooLarge(data.size());
    if (!too_large.empty()) {
        Refuse(too_large);
        reply.Fail(too_large);
        return;
    }
    const std::chrono::milliseconds timeout = GetOptions().request_timeout;
    MqttMessage request =
        NewNumberedMessage(GetTopics().Make("up", m_service, Session()), "request");
    request.payload = std::move(data);
    request.response_topic = GetTopics().Make("reply", m_service, Session());
    request.correlation = request.properties["number"];
    request.expiry = GetOptions().request_timeout;
    request.properties["deadline"] = std::to_string(ClockNow() + m_clock_offset + timeout.count());
    const std::uint64_t number = LastNumber();
    m_pending.emplace(number, Pending{reply, Clock::now() + timeout});
    ++Counted().requests;
    Publish(request, std::move(share),
            [this, number](const std::string& error) { FailPending(number, error); });
}

void OfferSide::FailPending(std::uint64_t number, const std::string& text)
{
    const auto node = m_pending.extract(number);
    if (!node.empty())
        node.mapped().reply.Fail(text);
}

void OfferSide::ExpirePending()
{
    while (!m_pending.empty() && m_pending.begin()->second.deadline <= Clock::now()) {
        ++Counted().expired;
        FailPending(m_pending.begin()->first,
                    "no answer from the remote service within " +
                        std::to_string(GetOptions().request_timeout.count()) + " seconds");
    }
}

// ---- From the service ----------------------------------------------------------------------

void OfferSide::OnReply(const std::string& from, MqttMessage& message)
{
    const std::string kind = message.properties["kind"];
    if (kind == "welcome" && m_service.empty() && m_services.Present().count(from) != 0)
        Join(from, message);
    if (from != m_service)
        return;
    // It took the other's clock some time to come here, so this is its earliest possible state.
    m_clock_offset = NumberOf(message, "clock") - ClockNow();
    if (kind != "welcome")
        OnAnswer(message);
}

void OfferSide::OnAnswer(MqttMessage& message)
{
    const auto node = m_pending.extract(std::strtoull(message.correlation.c_str(), nullptr, 10));
    if (node.empty())
        return;
    ++Counted().answers;
    if (message.properties["kind"] == "answer")
        node.mapped().reply.Send(std::move(message.payload));
    else
        node.mapped().reply.Fail(message.properties["error"]);
}

void OfferSide::OnNotification(MqttMessage& message)
{
    // Where there are no clients nobody misses it.
    if (IsNew(m_received, message))
        NotifyPartners(*m_endpoint, std::move(message.payload));
}
