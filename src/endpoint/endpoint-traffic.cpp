// The endpoint's traffic: in to the handlers, and out through each partner's window.

#include <algorithm>
#include <utility>

#include "byte-variant.h"
#include "endpoint-impl.h"
#include "endpoint-tasks.h"

#define PELMAR_LOG_FILE "endpoint-traffic.cpp"
#include "log-lines.h"

namespace {

using std::chrono::milliseconds;

// The stock system bus lets a connection have 128 calls open, of requests and questions together.
// From so many requests on, a partner has one at a time.
constexpr std::size_t FEW_OPEN_REQUESTS = 28;
constexpr std::size_t MOST_OPEN_REQUESTS = 72;
constexpr std::size_t MOST_OPEN_CALLS = 120;

// How much GIO and the daemon may hold that the daemon has not taken for sure.
constexpr std::size_t DAEMON_WINDOW = 1024UL * 1024;

constexpr milliseconds ASK_LATER{300};

// Frames that may wait for a partner of a direct path when its answers are refused: more than an
// endpoint with a common window asks for at a time.
constexpr std::size_t MOST_REFUSALS = 128UL * 1024;

// Strangers that were answered and may come back.
constexpr std::size_t MOST_IDLE_STRANGERS = 64;

Deadlines::TimePoint DeadlineAfter(milliseconds timeout)
{
    const milliseconds longest = std::chrono::hours(24 * 365);
    return Deadlines::Clock::now() + std::clamp(timeout, milliseconds(1), longest);
}

PelmarEndpoint::Status StatusOfError(GDBusMessage* error)
{
    using Status = PelmarEndpoint::Status;
    const std::string name = bus_message::ErrorName(error);
    if (name == bus_error::LIMITS_EXCEEDED)
        return Status::busy;
    if (name == bus_error::GONE)
        return Status::partner_lost;
    if (!bus_message::IsFromDaemon(error))
        return Status::remote_error;
    if (name == bus_error::ACCESS_DENIED)
        return Status::refused;
    if (name == bus_error::NAME_HAS_NO_OWNER || name == bus_error::NO_REPLY ||
        name == bus_error::SERVICE_UNKNOWN)
        return Status::partner_lost;
    return Status::remote_error;
}

CallOrigin OriginOf(GDBusMessage* call)
{
    return {bus_message::CallId(call)};
}

}  // namespace

// A request's `done`. It is owed whatever happens to the endpoint.
class PelmarEndpoint::Impl::DoneTask final : public HandlerTask {
public:
    explicit DoneTask(RequestPtr request) : m_request(std::move(request)) {}
    void Run() override
    {
        CallGuarded("done", [this] { m_request->done(m_request->TakeResponse()); });
        m_request->done = nullptr;
    }
    void Abandon() override { Run(); }

private:
    const RequestPtr m_request;
};

// A message for the application.
class PelmarEndpoint::Impl::MessageTask final : public HandlerTask {
public:
    MessageTask(std::weak_ptr<Impl> impl, PeerPtr peer, Incoming message)
        : m_impl(std::move(impl)), m_peer(std::move(peer)), m_message(std::move(message))
    {
    }
    void Run() override
    {
        if (const auto impl = m_impl.lock())
            impl->HandleMessage(m_peer, std::move(m_message));
    }
    void Abandon() override
    {
        const auto impl = m_impl.lock();
        if (impl == nullptr || !m_message.is_call)
            return;
        const Lock lock(impl->m_mutex);
        impl->RefuseCall(m_peer, m_message.origin, bus_error::GONE,
                         "the endpoint left the channel");
    }

private:
    const std::weak_ptr<Impl> m_impl;
    const PeerPtr m_peer;
    Incoming m_message;
};

PelmarEndpoint::Response PelmarEndpoint::Impl::OpenRequest::TakeResponse()
{
    Response response{outcome.status, std::move(outcome.data), std::move(outcome.error)};
    if (outcome.message != nullptr)
        response.data = bus_message::Bytes(outcome.message.get());
    outcome.message.reset();
    if (response.status != Status::ok && response.error.empty())
        response.error = ToString(response.status);
    return response;
}

PelmarEndpoint::Bytes PelmarEndpoint::Impl::Incoming::TakeBytes()
{
    if (message == nullptr)
        return std::move(data);
    Bytes bytes = bus_message::Bytes(message.get());
    message.reset();
    return bytes;
}

PelmarEndpoint::Impl::Incoming PelmarEndpoint::Impl::FromBus(MessagePtr message)
{
    Incoming incoming;
    incoming.is_call = bus_message::IsCall(message.get());
    if (incoming.is_call)
        incoming.origin = OriginOf(message.get());
    incoming.cost = bus_message::Cost(message.get());
    incoming.message = std::move(message);
    return incoming;
}

void LogHandlerThrew(const char* name, const char* text)
{
    PELMAR_ERROR("The handler %s threw%s%s\n\n", PELMAR_AT(__func__), name,
                 text != nullptr ? ": " : "",
                 text != nullptr ? bus_message::BoundedText(text).c_str() : "");
}

// ---- In ------------------------------------------------------------------------------------

void PelmarEndpoint::Impl::TrafficCame(GDBusMessage* message)
{
    const std::string name = g_dbus_message_get_sender(message);
    const bool is_call = bus_message::IsCall(message);
    if (m_stopped) {
        if (is_call)
            RefuseCall(FindPeer(name), OriginOf(message), bus_error::GONE,
                       "the endpoint left the channel");
        return;
    }
    Carry(m_handshake->TrafficCame(name));
    const Handshake::Traffic traffic = m_handshake->TrafficOf(name);
    const bool is_of_stranger = traffic == Handshake::Traffic::of_stranger;
    if (is_of_stranger && !is_call)
        return;
    const PeerPtr peer = PeerNamed(name);
    if (is_call && peer->unanswered == 0) {
        peer->window.AnswersTaken();
        DaemonHasTaken(peer->given);
    }
    if (!TakeIn(*peer, bus_message::Cost(message))) {
        if (is_call)
            RefuseCall(peer, OriginOf(message), bus_error::LIMITS_EXCEEDED,
                       "too many messages wait for the handlers of this endpoint");
        return;
    }
    if (is_call)
        ++peer->unanswered;
    const bool may_deliver =
        traffic == Handshake::Traffic::deliver || (is_of_stranger && peer->has_credentials);
    if (may_deliver && peer->held.empty())
        Deliver(peer, FromBus(NewReference(message)));
    else
        peer->held.push_back(NewReference(message));
    if (is_of_stranger && !std::exchange(peer->is_asked_who, true)) {
        ForgetIdleStrangers();
        LearnCredentials(peer);
    }
}

// The small share that each has for itself is what an endpoint has under way to another at a time.
// With an answer it sends all that is ahead of it.
bool PelmarEndpoint::Impl::TakeIn(Peer& peer, std::size_t cost)
{
    const std::size_t share = peer.open_requests != 0 ? PartnerWindow::AHEAD_OF_ANSWER_BYTES
                                                      : PartnerWindow::TRANSIT_BYTES;
    const bool has_share =
        m_handshake->Knows(peer.Name()) && (peer.waiting == 0 || peer.waiting + cost <= share);
    if (m_intake != 0 && m_intake + cost > m_settings.intake && !has_share) {
        Report(Problem::intake_full,
               "messages come in faster than the handlers deal with them: over " +
                   std::to_string(m_settings.intake) +
                   " bytes they are refused; make the handlers faster or SetIntake larger, or find "
                   "out who sends so much");
        return false;
    }
    CountIn(peer, cost);
    return true;
}

void PelmarEndpoint::Impl::CountIn(Peer& peer, std::size_t cost)
{
    m_intake += cost;
    peer.waiting += cost;
    ++peer.accepted;
}

void PelmarEndpoint::Impl::LetGo(Peer& peer, std::size_t cost)
{
    m_intake -= cost;
    peer.waiting -= cost;
    if (m_intake == 0)
        ReportOver(Problem::intake_full);
    if (m_intake < m_settings.intake)
        GoOnReading();
}

void PelmarEndpoint::Impl::Deliver(const PeerPtr& peer, Incoming message)
{
    Post(std::make_unique<MessageTask>(weak_from_this(), peer, std::move(message)));
}

void PelmarEndpoint::Impl::DeliverHeld(const PeerPtr& peer)
{
    if (m_handshake->TrafficOf(peer->Name()) == Handshake::Traffic::hold || !peer->has_credentials)
        return;
    while (!peer->held.empty()) {
        Deliver(peer, FromBus(std::move(peer->held.front())));
        peer->held.pop_front();
    }
}

void PelmarEndpoint::Impl::RefuseCall(const PeerPtr& peer, const CallOrigin& call,
                                      const char* error, const std::string& text)
{
    if (!call.ExpectsAnswer())
        return;
    if (peer != nullptr && !peer->gone)
        AnswerWith(peer, std::make_shared<OutgoingAnswer>(call, error, text));
    else if (call.bus)
        SendNow(bus_message::Error(*call.bus, error, text).get());
}

// It waits no more when its handler begins: whoever is answered by that may send the next at once.
void PelmarEndpoint::Impl::HandleMessage(const PeerPtr& peer, Incoming message)
{
    {
        const Lock lock(m_mutex);
        LetGo(*peer, message.cost);
    }
    if (message.is_call) {
        HandleCall(peer, std::move(message));
    } else if (m_handlers.notification) {
        Message notification{Partner(peer->partner), message.TakeBytes()};
        CallGuarded("OnNotification", [&] { m_handlers.notification(notification); });
    }
    const Lock lock(m_mutex);
    ++peer->handled;
    AnswerQuestions(*peer);
}

void PelmarEndpoint::Impl::HandleCall(const PeerPtr& peer, Incoming message)
{
    Message call{Partner(peer->partner), message.TakeBytes()};
    const Reply reply(
        std::make_shared<Reply::State>(weak_from_this(), peer, std::move(message.origin)));
    if (m_handlers.deferred_message) {
        KeepOpen(reply);
        CallGuarded("OnDeferredMessage", [&] { m_handlers.deferred_message(call, reply); });
        return;
    }
    try {
        if (!m_handlers.message) {
            reply.Fail("this endpoint takes no messages");
            return;
        }
        Bytes answer = m_handlers.message(call);
        m_queue->TaskIsNearlyOver();
        reply.Send(std::move(answer));
    } catch (const std::exception& exception) {
        reply.Fail(exception.what());
    } catch (...) {
        reply.Fail("the handler failed");
    }
}

// Those that have ended are left out now and then.
void PelmarEndpoint::Impl::KeepOpen(const Reply& reply)
{
    const Lock lock(m_mutex);
    m_open_replies.push_back(reply.m_state);
    if (m_open_replies.size() < m_open_replies_limit)
        return;
    m_open_replies.erase(std::remove_if(m_open_replies.begin(), m_open_replies.end(),
                                        [](const auto& open) { return open.expired(); }),
                         m_open_replies.end());
    m_open_replies_limit = 2 * m_open_replies.size() + 16;
}

void PelmarEndpoint::Impl::AnswerQuestions(Peer& peer)
{
    while (!peer.questions.empty() && peer.questions.front().first <= peer.handled) {
        AnswerQuestion(peer.questions.front().second);
        peer.questions.pop_front();
    }
}

// ---- Replies -------------------------------------------------------------------------------

void PelmarEndpoint::Impl::Send(Reply::State& reply, Bytes data)
{
    auto body = std::make_shared<const Bytes>(std::move(data));
    const Lock lock(m_mutex);
    if (!TakeReply(reply))
        return;
    if (body->size() > LargestFor(*reply.peer))
        RefuseCall(reply.peer, reply.origin, bus_error::FAILED,
                   "the answer is too large: " + std::to_string(body->size()) + " bytes");
    else if (reply.origin.ExpectsAnswer())
        AnswerWith(reply.peer, std::make_shared<OutgoingAnswer>(reply.origin, std::move(body)));
}

void PelmarEndpoint::Impl::Fail(Reply::State& reply, const std::string& text)
{
    const std::string bounded = bus_message::BoundedText(text);
    const Lock lock(m_mutex);
    if (TakeReply(reply))
        RefuseCall(reply.peer, reply.origin, m_stopped ? bus_error::GONE : bus_error::FAILED,
                   bounded);
}

// The first answer counts, if the caller is still there.
bool PelmarEndpoint::Impl::TakeReply(Reply::State& reply)
{
    if (std::exchange(reply.answered, true) || reply.peer->gone)
        return false;
    --reply.peer->unanswered;
    return true;
}

bool PelmarEndpoint::Impl::IsWanted(const Reply::State& reply) const
{
    const Lock lock(m_mutex);
    return !reply.answered && !reply.peer->gone && !m_stopped && reply.origin.ExpectsAnswer();
}

// Keeps its place among what is sent to the partner.
void PelmarEndpoint::Impl::AnswerWith(const PeerPtr& peer,
                                      const std::shared_ptr<OutgoingAnswer>& answer)
{
    if (peer->window.Take(answer))
        Pump(peer);
    else
        RefuseAnswer(peer, answer->origin);
}

// ---- Partners and strangers ----------------------------------------------------------------

PelmarEndpoint::Impl::PeerPtr PelmarEndpoint::Impl::FindPeer(const std::string& name) const
{
    const auto found = m_peers.find(name);
    return found != m_peers.end() ? found->second : nullptr;
}

PelmarEndpoint::Impl::PeerPtr PelmarEndpoint::Impl::FindPeer(const Partner& partner) const
{
    if (partner.m_state == nullptr)
        return nullptr;
    PeerPtr peer = FindPeer(partner.m_state->name);
    return peer != nullptr && peer->partner == partner.m_state ? peer : nullptr;
}

PelmarEndpoint::Impl::PeerPtr PelmarEndpoint::Impl::PeerNamed(const std::string& name)
{
    static std::atomic<std::uint64_t> last_number{0};
    PeerPtr& peer = m_peers[name];
    if (peer == nullptr)
        peer = std::make_shared<Peer>(std::make_shared<Partner::State>(name, ++last_number),
                                      m_settings, m_transit);
    return peer;
}

// A stranger's end is not reported; whoever has nothing open is forgotten when there are many.
void PelmarEndpoint::Impl::ForgetIdleStrangers()
{
    const auto is_idle = [this](const Peer& peer) {
        return !m_handshake->Knows(peer.Name()) && peer.has_credentials && peer.waiting == 0 &&
               peer.unanswered == 0 && !peer.window.HasWaiting();
    };
    const auto idle = static_cast<std::size_t>(std::count_if(
        m_peers.begin(), m_peers.end(), [&](const auto& entry) { return is_idle(*entry.second); }));
    if (idle <= MOST_IDLE_STRANGERS)
        return;
    for (auto entry = m_peers.begin(); entry != m_peers.end();) {
        if (is_idle(*entry->second)) {
            Forget(*entry->second);
            entry = m_peers.erase(entry);
        } else {
            ++entry;
        }
    }
}

// ---- Out -----------------------------------------------------------------------------------

// `peer` is null for whoever is none.
PelmarEndpoint::Status PelmarEndpoint::Impl::Admit(const PeerPtr& peer, std::size_t size) const
{
    if (m_stopped)
        return Status::stopped;
    if (m_connection == nullptr)
        return Status::bus_gone;
    if (peer == nullptr)
        return Status::no_such_partner;
    if (!peer->partner->ready)
        return m_handshake->Knows(peer->Name()) ? Status::not_ready : Status::no_such_partner;
    return size > LargestFor(*peer) ? Status::too_large : Status::ok;
}

PelmarEndpoint::Status PelmarEndpoint::Impl::Notify(const Partner& partner, Bytes data)
{
    const auto body = std::make_shared<const Bytes>(std::move(data));
    const Lock lock(m_mutex);
    return NotifyPeer(FindPeer(partner), body);
}

// Nobody is lost by being sent something: that is told later.
PelmarEndpoint::Broadcast PelmarEndpoint::Impl::NotifyAll(Bytes data)
{
    const auto body = std::make_shared<const Bytes>(std::move(data));
    Broadcast broadcast;
    const Lock lock(m_mutex);
    for (const PeerPtr& peer : m_ready) {
        const Status status = NotifyPeer(peer, body);
        if (status == Status::ok)
            ++broadcast.sent;
        else
            broadcast.missed.push_back({Partner(peer->partner), status});
    }
    return broadcast;
}

PelmarEndpoint::Status PelmarEndpoint::Impl::NotifyPeer(const PeerPtr& peer, const Payload& body)
{
    const Status status = Admit(peer, body->size());
    if (status != Status::ok)
        return status;
    const bool is_taken =
        NotifyDirect(*peer, body) ||
        peer->window.Take(std::make_shared<OutgoingBody>(Outgoing::Kind::notification, body));
    if (!is_taken) {
        AskForRoom(peer);
        return Status::queue_full;
    }
    Pump(peer);
    return Status::ok;
}

PelmarEndpoint::Impl::RequestPtr PelmarEndpoint::Impl::OpenNewRequest(const Partner& partner,
                                                                      Bytes data, Status& status)
{
    auto request = std::make_shared<OpenRequest>(Outgoing::Kind::request,
                                                 std::make_shared<const Bytes>(std::move(data)));
    const PeerPtr peer = FindPeer(partner);
    status = Admit(peer, request->body->size());
    if (status == Status::ok && !peer->window.Take(request)) {
        status = Status::queue_full;
        AskForRoom(peer);
    }
    if (status == Status::ok) {
        request->peer = peer;
        peer->requests.insert(request);
    }
    return request;
}

PelmarEndpoint::Response PelmarEndpoint::Impl::Request(const Partner& partner, Bytes data,
                                                       milliseconds timeout)
{
    const auto deadline = DeadlineAfter(timeout);
    Lock lock(m_mutex);
    Status status = Status::ok;
    const RequestPtr request = OpenNewRequest(partner, std::move(data), status);
    if (status != Status::ok)
        return {status, {}, ToString(status)};
    request->is_waited_for = true;
    const PeerPtr peer = request->peer.lock();
    const bool is_reader = TakeReading(*peer);
    Pump(peer);
    if (peer->socket != nullptr)
        FlushDirect(*peer);
    if (is_reader)
        ReadUntilAnswered(lock, peer, *request, deadline);
    AwaitAnswer(lock, peer, *request, deadline);
    if (!request->over)
        Finish(request, {Status::timeout});
    lock.unlock();
    return request->TakeResponse();
}

// One of those that wait for a partner reads its direct path.
void PelmarEndpoint::Impl::AwaitAnswer(Lock& lock, const PeerPtr& peer, const OpenRequest& request,
                                       Deadlines::TimePoint deadline)
{
    bool is_late = false;
    while (!request.over && !is_late) {
        if (TakeReading(*peer))
            ReadUntilAnswered(lock, peer, request, deadline);
        else
            request.told.wait_until(lock, deadline);
        is_late = Clock::now() >= deadline;
    }
}

PelmarEndpoint::Call PelmarEndpoint::Impl::Request(const Partner& partner, Bytes data,
                                                   milliseconds timeout,
                                                   std::function<void(Response)> done)
{
    const auto deadline = DeadlineAfter(timeout);
    Lock lock(m_mutex);
    Status status = Status::ok;
    const RequestPtr request = OpenNewRequest(partner, std::move(data), status);
    request->done = done ? std::move(done) : [](const Response& /*response*/) {};
    if (status == Status::ok) {
        request->deadline = At(deadline, [this, request] { Finish(request, {Status::timeout}); });
        Pump(request->peer.lock());
    } else if (status == Status::stopped) {
        request->outcome.status = status;
        lock.unlock();
        DoneTask(request).Run();
    } else {
        Finish(request, {status});
    }
    return Call(std::make_shared<Call::State>(Call::State{weak_from_this(), request}));
}

void PelmarEndpoint::Impl::Cancel(const std::shared_ptr<OpenRequest>& request)
{
    const Lock lock(m_mutex);
    if (!request->over && !m_stopped)
        Finish(request, {Status::cancelled});
}

// What came of it is told once. One that was sent counts against its partner until no answer can
// come any more.
void PelmarEndpoint::Impl::Finish(const RequestPtr& request, Outcome outcome)
{
    if (std::exchange(request->over, true))
        return;
    request->outcome = std::move(outcome);
    m_deadlines.Remove(request->deadline);
    if (const PeerPtr peer = request->peer.lock(); peer != nullptr && !request->sent) {
        peer->requests.erase(request);
        peer->window.Drop(*request);
        request->body.reset();
        AfterProgress(peer);
    }
    if (request->is_waited_for)
        request->told.notify_all();
    else
        Post(std::make_unique<DoneTask>(request));
}

// They can get no answer any more.
void PelmarEndpoint::Impl::FinishAll(Peer& peer, Status status)
{
    const auto requests = std::move(peer.requests);
    peer.requests.clear();
    for (const RequestPtr& request : requests) {
        if (request->sent) {
            CloseRequest(peer, *request, false);
        } else {
            peer.window.Drop(*request);
        }
        request->peer.reset();
        Finish(request, {status});
    }
}

void PelmarEndpoint::Impl::RequestAnswered(const RequestPtr& request, GDBusMessage* answer)
{
    const PeerPtr peer = request->peer.lock();
    if (peer != nullptr && peer->reads_direct && !bus_message::IsFromDaemon(answer))
        return;  // the answer that counts comes by the direct path
    const bool is_error = !bus_message::ErrorName(answer).empty();
    Outcome outcome;
    if (is_error)
        outcome = {StatusOfError(answer), bus_message::ErrorText(answer)};
    else if (bus_message::HasBody(answer, "(ay)"))
        outcome.message = NewReference(answer);
    else
        outcome = {Status::remote_error, "the partner's answer is not of type (ay)"};
    DaemonHasTaken(request->given);
    EndRequest(request, std::move(outcome), !bus_message::IsFromDaemon(answer));
}

void PelmarEndpoint::Impl::EndRequest(const RequestPtr& request, Outcome outcome,
                                      bool was_dealt_with)
{
    const PeerPtr peer = request->peer.lock();
    if (peer == nullptr || peer->requests.erase(request) == 0)
        return;
    CloseRequest(*peer, *request, was_dealt_with);
    Finish(request, std::move(outcome));
    AfterProgress(peer);
    PumpBacklog();
}

// It was sent, and nothing can come for it any more.
void PelmarEndpoint::Impl::CloseRequest(Peer& peer, const OpenRequest& request, bool was_dealt_with)
{
    if (request.bus_serial != 0) {
        --m_open_requests;
        --peer.open_requests;
    }
    peer.window.End(request, was_dealt_with);
}

// ---- Through the window --------------------------------------------------------------------

void PelmarEndpoint::Impl::Pump(const PeerPtr& peer)
{
    if (peer->socket != nullptr) {
        PumpDirect(peer);
        // It may have written what nobody is told of by the socket then.
        TellOfRoom(*peer);
        return;
    }
    while (DaemonHasRoom()) {
        const PartnerWindow::Item item = peer->window.Next(MayCall(*peer));
        if (item == nullptr)
            break;
        Leave(peer, item);
        if (m_given - m_taken >= DAEMON_WINDOW / 2)
            ConfirmDaemon();
    }
    if (peer->window.HasWaiting() && !std::exchange(peer->in_backlog, true))
        m_backlog.push_back(peer);
    AskForRoom(peer);
}

// Those that wait for what all share: the daemon's attention, open calls, bytes under way.
void PelmarEndpoint::Impl::PumpBacklog()
{
    for (std::size_t left = m_backlog.size(); left != 0; --left) {
        const PeerPtr peer = m_backlog.front().lock();
        m_backlog.pop_front();
        if (peer == nullptr || peer->gone)
            continue;
        peer->in_backlog = false;
        Pump(peer);
    }
}

// In front of those that wait.
void PelmarEndpoint::Impl::RefuseAnswer(const PeerPtr& peer, const CallOrigin& origin)
{
    const OutgoingAnswer refusal(origin, bus_error::LIMITS_EXCEEDED,
                                 "too many answers wait to be read by the caller");
    if (peer->socket == nullptr) {
        SendAnswer(refusal);
        return;
    }
    if (peer->socket->FramesWaiting() > MOST_REFUSALS)
        After(milliseconds(0), [this, peer] { DirectPathFailed(peer, "it reads no answers"); });
    else
        AnswerDirect(*peer, refusal);
    PumpDirect(peer);
}

void PelmarEndpoint::Impl::SendAnswer(const OutgoingAnswer& answer)
{
    const bus_message::CallId& call = *answer.origin.bus;
    if (answer.error != nullptr)
        SendNow(bus_message::Error(call, answer.error, answer.text).get());
    else
        SendNow(bus_message::Answer(call, pelmar_bytes::Share(answer.body)).get());
}

void PelmarEndpoint::Impl::Leave(const PeerPtr& peer, const PartnerWindow::Item& item)
{
    m_given += item->cost;
    item->given = peer->given = m_given;
    switch (item->kind) {
        case Outgoing::Kind::answer:
            SendAnswer(static_cast<OutgoingAnswer&>(*item));
            return;
        case Outgoing::Kind::notification: {
            const auto& notification = static_cast<OutgoingBody&>(*item);
            const guint32 serial =
                SendNow(bus_message::Signal(peer->Name(), m_object_path,
                                            pelmar_bytes::Share(notification.body))
                            .get(),
                        [this, peer](GDBusMessage* error) { NotificationRefused(peer, error); });
            if (serial != 0)
                peer->notified.emplace_back(item->position, serial);
            return;
        }
        case Outgoing::Kind::request: {
            const auto request = std::static_pointer_cast<OpenRequest>(item);
            const MessagePtr call =
                bus_message::Call(peer->Name(), m_object_path, CHANNEL_INTERFACE, CHANNEL_METHOD,
                                  pelmar_bytes::Share(std::move(request->body)));
            request->sent = true;
            ++m_open_requests;
            ++peer->open_requests;
            request->bus_serial = SendNow(call.get(), [this, request](GDBusMessage* answer) {
                RequestAnswered(request, answer);
            });
        }
    }
}

bool PelmarEndpoint::Impl::MayCall(const Peer& peer) const
{
    if (m_open_requests >= MOST_OPEN_REQUESTS ||
        m_open_requests + m_open_questions >= MOST_OPEN_CALLS)
        return false;
    return peer.open_requests == 0 || m_open_requests < FEW_OPEN_REQUESTS;
}

bool PelmarEndpoint::Impl::MayAsk() const
{
    return m_open_requests + m_open_questions < MOST_OPEN_CALLS;
}

// ---- The partner's word --------------------------------------------------------------------

void PelmarEndpoint::Impl::AskForRoom(const PeerPtr& peer)
{
    if (peer->socket != nullptr || peer->asking || peer->asks_later ||
        (!peer->window.WantsWord() && !NeedsWordOnDirectPath(*peer)))
        return;
    if (peer->is_unaskable) {
        // What the daemon has taken is all that can be known.
        peer->asking = true;
        CallDaemon("GetId", nullptr,
                   [this, peer, position = peer->window.Ask()](GDBusMessage* /*answer*/) {
                       peer->asking = false;
                       peer->window.WordCame(position);
                       AfterProgress(peer);
                   });
    } else if (MayAsk()) {
        AskPeer(peer);
    } else {
        AskLater(peer);
    }
}

void PelmarEndpoint::Impl::AskLater(const PeerPtr& peer)
{
    peer->asks_later = true;
    After(ASK_LATER, [this, peer] {
        peer->asks_later = false;
        if (!peer->gone)
            AskForRoom(peer);
    });
}

// GIO answers this by itself, but in the partner's main loop; an endpoint does when its handlers
// are done with all that came before.
void PelmarEndpoint::Impl::AskPeer(const PeerPtr& peer)
{
    const MessagePtr question =
        bus_message::Call(peer->Name(), m_object_path, "org.freedesktop.DBus.Properties", "GetAll",
                          g_variant_new("(s)", CHANNEL_INTERFACE));
    const std::uint64_t position = peer->window.Ask();
    const guint32 serial = SendNow(question.get(), [this, peer, position](GDBusMessage* answer) {
        PeerAnswered(peer, position, answer);
    });
    if (serial == 0)
        return;
    peer->asking = true;
    ++m_open_questions;
}

void PelmarEndpoint::Impl::PeerAnswered(const PeerPtr& peer, std::uint64_t position,
                                        GDBusMessage* answer)
{
    --m_open_questions;
    peer->asking = false;
    if (peer->gone)
        return;
    const std::string error = bus_message::ErrorName(answer);
    const bool is_from_daemon = bus_message::IsFromDaemon(answer);
    const bool is_later = error == bus_error::LIMITS_EXCEEDED ||
                          (is_from_daemon && !error.empty() && error != bus_error::ACCESS_DENIED);
    if (is_from_daemon && error == bus_error::ACCESS_DENIED)
        peer->is_unaskable = true;
    if (!is_from_daemon && !is_later && !bus_message::IsUnknownPartner(answer)) {
        peer->has_word = true;
        peer->may_open = peer->may_open || !bus_message::HasToWait(answer);
    }
    using Answer = Handshake::Answer;
    if (!m_stopped && !peer->ask_again) {
        const Answer unless_error =
            bus_message::IsUnknownPartner(answer) ? Answer::unknown : Answer::yes;
        const Answer if_error = is_later ? Answer::not_now : Answer::never;
        Carry(m_handshake->Answered(peer->Name(), error.empty() ? unless_error : if_error));
    }
    const bool is_gone = is_from_daemon && (error == bus_error::NAME_HAS_NO_OWNER ||
                                            error == bus_error::SERVICE_UNKNOWN);
    if (is_gone) {
        EndPeer(peer->Name());
    } else if (std::exchange(peer->ask_again, false)) {
        Ask(peer->Name());
    } else if (is_later) {
        AskLater(peer);
    } else if (!is_from_daemon) {
        peer->window.WordCame(position);
        AfterProgress(peer);
        TryDirectPath(peer);
    }
    PumpBacklog();
}

// A daemon answers a notification only when it does not pass it on: too much is unread by the
// partner, from whomever. What came before it may have arrived and what came after it too, so that
// this partner has to begin anew.
void PelmarEndpoint::Impl::NotificationRefused(const PeerPtr& peer, GDBusMessage* error)
{
    if (peer->gone)
        return;
    const std::string name = peer->Name();
    const std::string reason = bus_message::ErrorName(error);
    PELMAR_DEBUG("A notification to %s was refused: %s\n\n", PELMAR_AT(__func__), name.c_str(),
                 reason.c_str());
    if (reason == bus_error::ACCESS_DENIED)
        Report(Problem::name_refused,
               "the bus does not let this process send notifications to " + name +
                   ": install the policy of the channel for this process's user",
               m_object_path);
    if (reason == bus_error::LIMITS_EXCEEDED)
        BeginAnew(name);
    else
        EndPeer(name);
}

// It is there as before; but what was on its way to it, or from it, is not.
void PelmarEndpoint::Impl::BeginAnew(const std::string& name)
{
    EndPeer(name);
    if (!m_stopped)
        Carry(m_handshake->PulseSeen(Stage::syn, name));
}

// Nothing can come for these any more.
void PelmarEndpoint::Impl::ForgetDealtWith(Peer& peer)
{
    const std::uint64_t position = peer.window.DealtWithPosition();
    while (!peer.notified.empty() && peer.notified.front().first <= position) {
        m_calls.erase(peer.notified.front().second);
        peer.notified.pop_front();
    }
}

// The window may have room again.
void PelmarEndpoint::Impl::AfterProgress(const PeerPtr& peer)
{
    if (peer->gone)
        return;
    // What left by the bus before a direct path may still be refused.
    if (peer->socket == nullptr)
        ForgetDealtWith(*peer);
    Pump(peer);
    TellOfRoom(*peer);
    if (m_stopped)
        m_changed.notify_all();
}

void PelmarEndpoint::Impl::TellOfRoom(Peer& peer)
{
    if (peer.window.HasRoomAgain())
        Tell("OnRoom", m_handlers.room, Partner(peer.partner));
}

// ---- The daemon's ---------------------------------------------------------------------------

bool PelmarEndpoint::Impl::DaemonHasRoom() const
{
    return m_given - m_taken < DAEMON_WINDOW;
}

// The daemon answers after it has taken everything that was sent before the question.
void PelmarEndpoint::Impl::ConfirmDaemon()
{
    if (std::exchange(m_confirming, true))
        return;
    CallDaemon("GetId", nullptr, [this, given = m_given](GDBusMessage* /*answer*/) {
        m_confirming = false;
        DaemonHasTaken(given);
        if (m_given - m_taken >= DAEMON_WINDOW / 2)
            ConfirmDaemon();
        PumpBacklog();
        if (m_stopped)
            m_changed.notify_all();
    });
}

// Who was passed on a message shows it, too.
void PelmarEndpoint::Impl::DaemonHasTaken(std::uint64_t given)
{
    m_taken = std::max(m_taken, given);
}
