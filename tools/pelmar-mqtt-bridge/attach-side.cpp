#include "attach-side.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "bus-id.h"
#include "report.h"

namespace {

// Calls that are under way. Those that wait here are forgotten with the session.
constexpr std::size_t MOST_RUNNING = 100;

}  // namespace

AttachSide::AttachSide(EventLoop& loop, const Options& options, const std::string& channel,
                       Fatal fatal)
    : BridgeSide(loop, options, channel, "service", std::move(fatal))
{
}

void AttachSide::Start()
{
    m_endpoint = NewEndpoint(PelmarEndpoint::Role::client);
    SetHandlers();
    StartEndpoint(*m_endpoint);
    BridgeSide::Start();
}

void AttachSide::Stop()
{
    BridgeSide::Stop();
    m_endpoint.reset();
}

std::vector<std::string> AttachSide::Subscriptions(const std::string& session) const
{
    const Topics& topics = GetTopics();
    return {topics.Make("service", "+"), topics.Make("offer", "+"),
            topics.Make("up", session, "+")};
}

// ---- The local service ---------------------------------------------------------------------

void AttachSide::SetHandlers()
{
    m_endpoint->OnReady([this](const auto& service) { OnServiceReady(service); });
    m_endpoint->OnLost([this](const auto& service) { OnServiceLost(service); });
    m_endpoint->OnNotification(
        [this](PelmarEndpoint::Message& message) { OnNotification(std::move(message.data)); });
    m_endpoint->OnMessage([this](const PelmarEndpoint::Message& /*message*/) -> Bytes {
        const std::string text = "a bridge carries calls from clients to the service only";
        Refuse(text);
        throw std::runtime_error(text);
    });
}

void AttachSide::OnServiceReady(const PelmarEndpoint::Partner& service)
{
    m_services.push_back(service);
    report::Info("the service " + service.Name() + " is ready");
    if (m_services.size() > 1)
        report::Error("there are " + std::to_string(m_services.size()) +
                      " services on this bus; calls go to " + m_services.front().Name() +
                      " while it is there, notifications to and from all");
    m_bus.clear();  // it may be another one than before
    Decide();
}

void AttachSide::OnServiceLost(const PelmarEndpoint::Partner& service)
{
    m_services.erase(std::remove(m_services.begin(), m_services.end(), service), m_services.end());
    report::Info("the service " + service.Name() + " is lost");
    Decide();
}

void AttachSide::OnNotification(Bytes data)
{
    ByteBudget::Share share = TakeRoom(data.size());
    if (!IsAnnounced())
        Refuse("a notification of the service came while no bridge could be told");
    else if (share == nullptr)
        Refuse("a notification found the bridge's queue full");
    else
        CarryNotification(GetTopics().Make("down", Session()), std::move(data), std::move(share));
}

// ---- Whether this bridge carries the service -----------------------------------------------

void AttachSide::OnSessionStart()
{
    PublishFence();
}

void AttachSide::OnSessionEnd()
{
    m_knows_others = false;
    m_others.Clear();
    m_offers.Clear();
    m_senders.clear();
    m_inbox.clear();
    m_reported_obstacle.clear();
}

void AttachSide::OnTick()
{
    m_others.RemoveExpired();
    m_offers.RemoveExpired();
    Decide();
}

void AttachSide::OnMessage(const std::vector<std::string>& levels, MqttMessage& message)
{
    if (levels.size() == 2 && levels[0] == "service")
        OnServiceState(levels[1], message);
    else if (levels.size() == 2 && levels[0] == "offer")
        OnOfferState(levels[1], message);
    else if (levels.size() == 3 && levels[0] == "up" && levels[1] == Session())
        OnUp(levels[2], message);
}

// The broker sends what it has kept before the first thing that is published after the
// subscription, which is this session's fence.
void AttachSide::OnServiceState(const std::string& session, const MqttMessage& state)
{
    if (session == Session())
        m_knows_others = true;
    else
        m_others.Take(session, state);
    Decide();
}

void AttachSide::OnOfferState(const std::string& session, const MqttMessage& state)
{
    m_offers.Take(session, state);
    if (state.payload.empty())
        m_senders.erase(session);
    Decide();
}

// The first one carries the service, the others wait until it goes. Two that came at the same
// moment see each other when both have announced themselves.
bool AttachSide::MustYield() const
{
    const auto& others = m_others.Present();
    return !others.empty() && (!IsAnnounced() || others.begin()->first < Session());
}

bool AttachSide::IsLoop() const
{
    const auto& offers = m_offers.Present();
    return std::any_of(offers.begin(), offers.end(),
                       [this](const auto& offer) { return offer.second == m_bus; });
}

std::string AttachSide::Obstacle() const
{
    if (IsLoop())
        return "refused: a bridge of this broker offers the channel on this very bus, so to attach "
               "to it would make a loop; stop one of the two";
    if (MustYield())
        return "another bridge carries a service of this channel already; this one waits until it "
               "goes";
    return {};
}

void AttachSide::Decide()
{
    if (!HasSession())
        return;
    if (m_bus.empty() && !m_services.empty()) {
        std::string error;
        m_bus = AskBusId(error).value_or("");
    }
    const bool possible = m_knows_others && !m_services.empty() && !m_bus.empty();
    const std::string obstacle = possible ? Obstacle() : "";
    if (possible && obstacle.empty() && !IsAnnounced()) {
        Announce(m_bus);
        report::Info("the service is carried");
    } else if (IsAnnounced() && !(possible && obstacle.empty())) {
        Unannounce();
        report::Info("the service is no longer carried");
    }
    if (std::exchange(m_reported_obstacle, obstacle) != obstacle && !obstacle.empty())
        report::Error(obstacle);
}

// ---- What comes from the clients -----------------------------------------------------------

void AttachSide::OnUp(const std::string& from, MqttMessage& message)
{
    if (message.properties["kind"] == "greeting")
        Welcome(from, message);
    else
        Take(from, message);
}

void AttachSide::Welcome(const std::string& from, const MqttMessage& greeting)
{
    if (!IsAnnounced())
        return;
    m_senders[from].StartAfter(SequenceNumberOf(greeting));
    MqttMessage welcome = NewMessage(GetTopics().Make("reply", Session(), from), "welcome");
    welcome.properties["clock"] = std::to_string(ClockNow());
    welcome.properties["number"] = std::to_string(LastNumber());
    Publish(welcome, nullptr);
}

void AttachSide::Take(const std::string& from, MqttMessage& message)
{
    const auto sender = m_senders.find(from);
    if (sender == m_senders.end()) {
        Refuse("a message came from a bridge that had not greeted this one");
        return;
    }
    if (!IsNew(sender->second, message))
        return;
    ByteBudget::Share share = TakeRoom(message.payload.size());
    Inbound inbound{from, std::move(message), std::move(share)};
    if (inbound.share == nullptr) {
        Refuse("a message found the bridge's queue full");
        AnswerFailure(inbound, "the queue of the service's bridge is full");
        return;
    }
    m_inbox.push_back(std::move(inbound));
    HandleInbox();
}

// One after the other, so that the service sees them in the order in which they were sent.
void AttachSide::HandleInbox()
{
    while (!m_inbox.empty() && m_running < MOST_RUNNING) {
        Inbound inbound = std::move(m_inbox.front());
        m_inbox.pop_front();
        if (inbound.message.correlation.empty())
            Notify(std::move(inbound));
        else
            Execute(std::move(inbound));
    }
}

void AttachSide::Execute(Inbound request)
{
    const std::int64_t left = NumberOf(request.message, "deadline") - ClockNow();
    if (left <= 0) {
        ++Counted().expired;
        return;
    }
    if (m_services.empty()) {
        Refuse("a call came when the service was gone");
        AnswerFailure(request, "the service is gone");
        return;
    }
    ++m_running;
    ++Counted().requests;
    const auto done = [this, session = CurrentSession(), to = request.from,
                       correlation = request.message.correlation,
                       share = request.share](PelmarEndpoint::Response response) {
        --m_running;
        if (session == CurrentSession() && HasSession())
            Answer(to, correlation, std::move(response));
        HandleInbox();
    };
    m_endpoint->Request(m_services.front(), std::move(request.message.payload),
                        std::chrono::milliseconds(left), done);
}

void AttachSide::Notify(Inbound notification)
{
    if (!NotifyPartners(*m_endpoint, std::move(notification.message.payload)))
        Refuse("a notification came when the service was gone");
}

void AttachSide::Answer(const std::string& to, const std::string& correlation,
                        PelmarEndpoint::Response response)
{
    const bool answered = response.status == PelmarEndpoint::Status::ok;
    const std::string too_large = answered ? TooLarge(response.data.size()) : "";
    if (!too_large.empty())
        Refuse(too_large);
    if (response.status == PelmarEndpoint::Status::queue_full)
        Refuse("a call found no room in the queue of the service");
    const bool ok = answered && too_large.empty();
    MqttMessage answer =
        NewMessage(GetTopics().Make("reply", Session(), to), ok ? "answer" : "failure");
    answer.correlation = correlation;
    answer.expiry = GetOptions().request_timeout;
    answer.properties["clock"] = std::to_string(ClockNow());
    if (ok)
        answer.payload = std::move(response.data);
    else
        answer.properties["error"] = answered ? "the answer: " + too_large : response.error;
    if (response.status == PelmarEndpoint::Status::timeout)
        ++Counted().expired;
    else
        ++Counted().answers;
    Publish(answer, nullptr);
}

void AttachSide::AnswerFailure(const Inbound& request, const std::string& text)
{
    if (!request.message.correlation.empty())
        Answer(request.from, request.message.correlation,
               {PelmarEndpoint::Status::remote_error, {}, text});
}
