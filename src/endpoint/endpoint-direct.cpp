// The direct path to a partner: how it is agreed on over the bus, and the traffic that takes it.
// docs/protocol.md describes both.

#include <glib-unix.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "byte-variant.h"
#include "endpoint-impl.h"
#include "endpoint-tasks.h"

#define PELMAR_LOG_FILE "endpoint-direct.cpp"
#include "log-lines.h"

namespace {

using std::chrono::milliseconds;

constexpr guint32 DIRECT_VERSION = 1;
constexpr guint32 NOT_NOW = 0;

// What waits beyond the socket's own buffer; the rest waits in the partner's window, where a
// request can still be taken back.
constexpr std::size_t OUTBOX_BYTES = 256UL * 1024;
constexpr std::size_t OUTBOX_BYTES_FOR_NOTIFICATIONS = 1024UL * 1024;

// What is sent so soon after the last is written with what follows it, up to so much and after so
// long.
constexpr std::chrono::microseconds BURST{10};
constexpr std::chrono::microseconds BURST_DELAY{50};
constexpr std::chrono::microseconds FLOOD_DELAY{500};
constexpr std::size_t BURST_BYTES = 64UL * 1024;

// Clients that may open a path at a time. The daemon holds 64 descriptors for a connection; when
// there are more it drops what else is for it, its own answers among that.
constexpr std::size_t MOST_INVITED = 8;

// Who does not open it after so long stays on the bus, and others get their turn.
constexpr milliseconds INVITATION{200};

// Memory for large messages that was not used for so long is given up.
constexpr milliseconds SLOT_PATIENCE{5000};

// How long the bus may take to tell of the end of a partner whose socket has ended.
constexpr milliseconds END_PATIENCE{1000};

bool DirectPathIsForbidden()
{
    const char* value = std::getenv("PELMAR_DIRECT");
    return value != nullptr && std::strcmp(value, "0") == 0;
}

PelmarEndpoint::Status StatusOf(FrameError error)
{
    using Status = PelmarEndpoint::Status;
    switch (error) {
        case FrameError::gone:
            return Status::partner_lost;
        case FrameError::busy:
            return Status::busy;
        default:
            return Status::remote_error;
    }
}

bool IsFrameError(char reason)
{
    return static_cast<unsigned char>(reason) <= static_cast<unsigned char>(FrameError::busy);
}

FrameError FrameErrorOf(const char* bus_error_name)
{
    if (std::strcmp(bus_error_name, bus_error::GONE) == 0)
        return FrameError::gone;
    if (std::strcmp(bus_error_name, bus_error::LIMITS_EXCEEDED) == 0)
        return FrameError::busy;
    return FrameError::failed;
}

}  // namespace

// ---- Agreeing on it ------------------------------------------------------------------------

// While the handlers' own thread has nothing to do, it reads the sockets itself, and what it reads
// it handles without another thread in between.
class PelmarEndpoint::Impl::DirectIdle final : public HandlerIdle {
public:
    explicit DirectIdle(Impl& impl) : m_impl(impl) {}
    bool IsNeeded() const override { return m_impl.m_has_direct_peers; }
    void Wait() override
    {
        Return();
        m_impl.TakeEvents(m_impl.m_direct_poll->Wait());
    }
    void Leave() override
    {
        m_impl.m_direct_poll->ForgetWake();
        LetLoopIn(true);
    }
    void Return() override { LetLoopIn(false); }
    void Wake() override { m_impl.m_direct_poll->Wake(); }

private:
    void LetLoopIn(bool is_let_in)
    {
        if (std::exchange(m_loop_is_in, is_let_in) != is_let_in)
            m_impl.m_direct_poll->LetLoopIn(is_let_in);
    }

    Impl& m_impl;
    bool m_loop_is_in = true;
};

// Before the handlers are run. Where descriptors are short everything stays on the bus.
void PelmarEndpoint::Impl::PrepareDirectPaths(EventLoop& loop)
{
    if (!m_settings.direct_path || DirectPathIsForbidden())
        return;
    auto poll = std::make_unique<DirectPoll>();
    if (!poll->IsOpen())
        return;
    m_direct_poll = std::move(poll);
    m_direct_idle = std::make_unique<DirectIdle>(*this);
    m_direct_source.reset(g_unix_fd_source_new(m_direct_poll->ForLoop(), G_IO_IN));
    g_source_set_callback(m_direct_source.get(), G_SOURCE_FUNC(cb_Direct), this, nullptr);
    g_source_attach(m_direct_source.get(), loop.Context());
}

bool PelmarEndpoint::Impl::MayGoDirect(const Peer& peer) const
{
    return m_direct_poll != nullptr && m_never_direct.count(peer.Name()) == 0;
}

// For a client that asks whether it is wired up: whether it may open a path, or has to wait.
GVariant* PelmarEndpoint::Impl::WordOnDirectPath(const std::string& name)
{
    const PeerPtr peer = FindPeer(name);
    const bool may_come = m_role == Role::service && !m_stopped && peer != nullptr &&
                          MayGoDirect(*peer) && !peer->was_opened && !peer->is_invited;
    const bool has_to_wait = may_come && (m_invited >= MOST_INVITED || !m_uninvited.empty());
    if (has_to_wait && !std::exchange(peer->waits_for_turn, true))
        m_uninvited.push_back(name);
    if (may_come && !has_to_wait)
        Invite(peer);
    return has_to_wait ? bus_message::WaitForInvitation() : g_variant_new("(a{sv})", nullptr);
}

void PelmarEndpoint::Impl::Invite(const PeerPtr& peer)
{
    peer->is_invited = true;
    ++m_invited;
    After(INVITATION, [this, peer] {
        if (!peer->is_invited)
            return;
        // When the daemon answers, all that it held for this side has come, and nothing of that
        // client.
        CallDaemon("GetId", nullptr, [this, peer](GDBusMessage* /*answer*/) { IsThrough(*peer); });
    });
}

void PelmarEndpoint::Impl::InviteNext()
{
    while (m_invited < MOST_INVITED && !m_uninvited.empty() && !m_stopped) {
        const PeerPtr peer = FindPeer(m_uninvited.front());
        m_uninvited.pop_front();
        if (peer == nullptr || peer->was_opened || peer->is_invited)
            continue;
        Invite(peer);
        SendNow(bus_message::DirectPathWord(peer->Name(), m_object_path, "Invite").get());
    }
}

void PelmarEndpoint::Impl::IsThrough(Peer& peer)
{
    if (!std::exchange(peer.is_invited, false))
        return;
    --m_invited;
    InviteNext();
}

void PelmarEndpoint::Impl::TakeInvitation(const PeerPtr& peer)
{
    if (peer == nullptr)
        return;
    peer->may_open = true;
    TryDirectPath(peer);
}

// A client asks each service once, when it is ready and has said that it may be asked.
void PelmarEndpoint::Impl::TryDirectPath(const PeerPtr& peer)
{
    if (m_role == Role::client && !m_stopped && peer->partner->ready && peer->may_open &&
        !std::exchange(peer->was_opened, true))
        OpenDirectPath(peer);
}

// It may have become ready by what else it heard of its service.
bool PelmarEndpoint::Impl::NeedsWordOnDirectPath(const Peer& peer) const
{
    return m_role == Role::client && peer.partner->ready && !peer.has_word && !peer.is_unaskable &&
           MayGoDirect(peer);
}

// What cannot answer stays on the bus.
void PelmarEndpoint::Impl::OpenDirectPath(const PeerPtr& peer)
{
    const bool carries_descriptors = (g_dbus_connection_get_capabilities(m_connection.get()) &
                                      G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING) != 0;
    if (!carries_descriptors || !MayGoDirect(*peer))
        return;
    auto [own, theirs] = ConnectedSockets();
    if (!own.IsOpen())
        return;
    const MessagePtr call =
        bus_message::OpenDirectPath(peer->Name(), m_object_path, DIRECT_VERSION, theirs.Number());
    if (call == nullptr)
        return;
    auto socket = std::make_shared<SocketEnd>(std::move(own));
    SendNow(call.get(), [this, peer, socket](GDBusMessage* answer) {
        DirectPathAnswered(peer, std::move(*socket), answer);
    });
}

// The answer is the last that the service sends by the bus, and the call of Switch the last that
// the client does: also while it stops.
void PelmarEndpoint::Impl::DirectPathAnswered(const PeerPtr& peer, SocketEnd socket,
                                              GDBusMessage* answer)
{
    if (peer->gone || bus_message::Number(answer) != DIRECT_VERSION) {
        PELMAR_DEBUG("Partner %s stays on the bus\n\n", PELMAR_AT(__func__), peer->Name().c_str());
        return;
    }
    SendNow(bus_message::DirectPathWord(peer->Name(), m_object_path, "Switch").get());
    StartWriting(peer, std::move(socket));
    StartReading(peer);
}

// A service takes the socket only of whom it knows, and answers when that one is ready.
void PelmarEndpoint::Impl::TakeOpen(GDBusMessage* call)
{
    const bus_message::CallId id(call);
    ForeignDescriptor socket = bus_message::TakeDescriptor(call);
    const PeerPtr peer = FindPeer(id.caller);
    if (peer != nullptr)
        IsThrough(*peer);
    const bool is_welcome = m_role == Role::service && !m_stopped && peer != nullptr &&
                            m_handshake->Knows(id.caller) && !peer->was_opened && socket.IsOpen() &&
                            IsConnectedStream(socket.Number());
    if (!is_welcome || !MayGoDirect(*peer)) {
        AnswerOpen(id, NOT_NOW);
        return;
    }
    peer->was_opened = true;
    peer->opening = {id, SocketEnd(socket.Release())};
    Carry(m_handshake->TrafficCame(id.caller));
    AcceptDirectPath(peer);
}

void PelmarEndpoint::Impl::AcceptDirectPath(const PeerPtr& peer)
{
    if (!peer->opening || !peer->partner->ready)
        return;
    auto [call, socket] = std::move(*peer->opening);
    peer->opening.reset();
    AnswerOpen(call, DIRECT_VERSION);
    StartWriting(peer, std::move(socket));
}

void PelmarEndpoint::Impl::AnswerOpen(const bus_message::CallId& call, guint32 version)
{
    SendNow(bus_message::Answer(call, g_variant_new("(u)", version)).get());
}

void PelmarEndpoint::Impl::TakeSwitch(const std::string& caller)
{
    const PeerPtr peer = FindPeer(caller);
    if (peer != nullptr && peer->socket != nullptr && !peer->reads_direct)
        StartReading(peer);
}

void PelmarEndpoint::Impl::StartWriting(const PeerPtr& peer, SocketEnd socket)
{
    Hello hello;
    hello.largest = std::max(m_settings.intake, MAX_BUS_MESSAGE_BYTES);
    peer->socket = std::make_shared<DirectSocket>(std::move(socket), hello.largest);
    FrameHead head;
    head.type = FrameType::hello;
    WriteFrame(*peer, head, std::make_shared<const Bytes>(EncodeHello(hello)));
    m_direct_peers[peer->partner->number] = peer;
    m_has_direct_peers = true;
    AfterProgress(peer);
}

void PelmarEndpoint::Impl::StartReading(const PeerPtr& peer)
{
    peer->reads_direct = true;
    WatchDirect(*peer);
}

// ---- In ------------------------------------------------------------------------------------

void PelmarEndpoint::Impl::WatchDirect(Peer& peer)
{
    const bool reads = peer.reads_direct && !peer.is_paused && !peer.has_reader;
    const bool writes = peer.socket->Waiting() != 0 && !peer.writes_soon;
    // Where nobody looks at it, its end would be reported again and again.
    if (peer.has_ended || (peer.is_paused && !writes)) {
        m_direct_poll->Forget(peer.socket->Number());
        peer.watched = {};
        return;
    }
    if (std::exchange(peer.watched, std::make_pair(reads, writes)) != std::make_pair(reads, writes))
        m_direct_poll->Watch(peer.socket->Number(), peer.partner->number, reads, writes);
}

gboolean PelmarEndpoint::Impl::cb_Direct(gint /*descriptor*/, GIOCondition /*condition*/,
                                         gpointer user_data)
{
    Impl& impl = *static_cast<Impl*>(user_data);
    impl.TakeEvents(impl.m_direct_poll->Look());
    return G_SOURCE_CONTINUE;
}

void PelmarEndpoint::Impl::TakeEvents(const DirectPoll::Events& events)
{
    const Lock lock(m_mutex);
    m_direct_poll->ForEach(events, [this](std::uint64_t number, bool may_read, bool may_write) {
        if (number == 0) {
            WriteBursts();
            return;
        }
        const auto found = m_direct_peers.find(number);
        if (found == m_direct_peers.end())
            return;
        const PeerPtr peer = found->second;
        // Who reads for an answer waits for the socket: it must not find it empty.
        if (may_read && !peer->has_reader)
            ReadDirect(peer);
        if (may_write && peer->socket != nullptr) {
            peer->socket->HasRoom();
            FlushDirect(*peer);
            AfterProgress(peer);
        }
    });
}

// Once: what has come is handled, and others get their turn, before there is more.
void PelmarEndpoint::Impl::ReadDirect(const PeerPtr& peer)
{
    using ReadResult = DirectSocket::ReadResult;
    if (peer->is_paused)
        return;
    std::vector<Frame> frames;
    const ReadResult result = peer->socket->Read(m_read_buffer, frames);
    for (Frame& frame : frames) {
        if (!TakeFrame(peer, std::move(frame)))
            return;
    }
    if (result == ReadResult::at_fault)
        DirectPathFailed(peer, peer->socket->Fault());
    else if (result == ReadResult::ended)
        DirectPathEnded(peer);
    else if (peer->socket->HasWordsWaiting())
        WriteAtOnce(*peer);
}

// What the socket itself has to say.
void PelmarEndpoint::Impl::WriteAtOnce(Peer& peer)
{
    FlushDirect(peer);
    WatchDirect(peer);
}

// False when there is no direct path any more.
bool PelmarEndpoint::Impl::TakeFrame(const PeerPtr& peer, Frame frame)
{
    switch (frame.head.type) {
        case FrameType::hello: {
            const auto hello = DecodeHello(frame.payload);
            if (!hello) {
                DirectPathFailed(peer, "a greeting that is none");
                return false;
            }
            PELMAR_DEBUG("Partner %s goes past the bus\n\n", PELMAR_AT(__func__),
                         peer->Name().c_str());
            peer->largest = static_cast<std::size_t>(
                std::min<std::uint64_t>(hello->largest, std::size_t{0} - 1));
            peer->partner->direct = true;
            return true;
        }
        case FrameType::request:
        case FrameType::notify:
            TakeDirectMessage(peer, std::move(frame));
            return true;
        case FrameType::answer:
        case FrameType::error:
            return TakeDirectAnswer(peer, std::move(frame));
        case FrameType::bye:
            peer->said_bye = true;
            return true;
        case FrameType::slot:
        case FrameType::taken:
            return true;
    }
    return true;
}

// Whether the calling thread reads what comes from now on, for all. Before anything can be
// answered, so that nobody else is woken.
bool PelmarEndpoint::Impl::TakeReading(Peer& peer)
{
    if (!MayRead(peer) || peer.has_reader)
        return false;
    peer.has_reader = true;
    WatchDirect(peer);
    return true;
}

void PelmarEndpoint::Impl::ReadUntilAnswered(Lock& lock, const PeerPtr& peer,
                                             const OpenRequest& request,
                                             Deadlines::TimePoint deadline)
{
    const std::shared_ptr<DirectSocket> socket = peer->socket;
    while (!request.over && MayRead(*peer) && Clock::now() < deadline) {
        lock.unlock();
        m_direct_poll->WaitFor(socket->Number(), deadline);
        lock.lock();
        if (MayRead(*peer))
            ReadDirect(peer);
    }
    peer->has_reader = false;
    if (peer->socket == nullptr)
        return;
    WatchDirect(*peer);
    for (const RequestPtr& other : peer->requests) {
        if (other->is_waited_for && !other->over) {
            other->told.notify_all();
            return;
        }
    }
}

bool PelmarEndpoint::Impl::MayRead(const Peer& peer) const
{
    return peer.socket != nullptr && peer.reads_direct && !peer.is_paused && !peer.has_ended &&
           !m_stopped;
}

void PelmarEndpoint::Impl::TakeDirectMessage(const PeerPtr& peer, Frame frame)
{
    Incoming message;
    message.is_call = frame.head.type == FrameType::request;
    message.origin.serial = frame.head.serial;
    message.cost = frame.payload.size() + MESSAGE_OVERHEAD;
    message.data = std::move(frame.payload);
    if (m_stopped) {
        if (message.is_call)
            RefuseCall(peer, message.origin, bus_error::GONE, "the endpoint left the channel");
        return;
    }
    if (message.is_call)
        ++peer->unanswered;
    else
        --m_notified;
    CountIn(*peer, message.cost);
    PauseOrGoOn(*peer);
    Deliver(peer, std::move(message));
}

// Nothing is refused on a direct path: what the handlers do not get round to stays in the socket,
// but for what is ahead of an answer: a handler may wait for that.
void PelmarEndpoint::Impl::PauseOrGoOn(Peer& peer)
{
    const std::size_t share =
        peer.direct_requests.empty() ? 0 : PartnerWindow::AHEAD_OF_ANSWER_BYTES;
    const bool is_full = m_intake >= m_settings.intake && peer.waiting > share;
    if (peer.socket == nullptr || std::exchange(peer.is_paused, is_full) == is_full)
        return;
    if (is_full)
        m_paused.push_back(peer.partner->number);
    WatchDirect(peer);
}

void PelmarEndpoint::Impl::GoOnReading()
{
    for (const std::uint64_t number : std::exchange(m_paused, {})) {
        const auto found = m_direct_peers.find(number);
        if (found != m_direct_peers.end())
            PauseOrGoOn(*found->second);
    }
}

bool PelmarEndpoint::Impl::TakeDirectAnswer(const PeerPtr& peer, Frame frame)
{
    const RequestPtr request = FindRequest(*peer, frame.head);
    if (request == nullptr) {
        DirectPathFailed(peer, "an answer to what nobody asked");
        return false;
    }
    Outcome outcome;
    if (frame.head.type == FrameType::error && !IsFrameError(frame.payload.front())) {
        DirectPathFailed(peer, "an error for no known reason");
        return false;
    }
    if (frame.head.type == FrameType::answer) {
        outcome.data = std::move(frame.payload);
    } else {
        outcome.status = StatusOf(static_cast<FrameError>(frame.payload.front()));
        outcome.error =
            bus_message::BoundedText(std::string(frame.payload.begin() + 1, frame.payload.end()));
    }
    EndRequest(request, std::move(outcome), true);
    return true;
}

PelmarEndpoint::Impl::RequestPtr PelmarEndpoint::Impl::FindRequest(Peer& peer,
                                                                   const FrameHead& answer)
{
    if ((answer.flags & FrameHead::OF_BUS) == 0) {
        const auto node = peer.direct_requests.extract(answer.serial);
        return node.empty() ? nullptr : node.mapped();
    }
    const auto found = std::find_if(
        peer.requests.begin(), peer.requests.end(), [&answer](const RequestPtr& request) {
            return request->bus_serial != 0 && request->bus_serial == answer.serial;
        });
    if (found == peer.requests.end())
        return nullptr;
    m_calls.erase(answer.serial);
    return *found;
}

// ---- Out -----------------------------------------------------------------------------------

std::size_t PelmarEndpoint::Impl::LargestFor(const Peer& peer) const
{
    return peer.partner->direct ? peer.largest : MAX_BUS_MESSAGE_BYTES;
}

// What leaves at once needs no place among what waits.
bool PelmarEndpoint::Impl::NotifyDirect(Peer& peer, const Payload& body)
{
    if (peer.socket == nullptr || peer.socket->Waiting() >= OUTBOX_BYTES_FOR_NOTIFICATIONS ||
        !peer.window.Pass(body->size() + MESSAGE_OVERHEAD))
        return false;
    WriteNotification(peer, body);
    return true;
}

void PelmarEndpoint::Impl::WriteNotification(Peer& peer, Payload body)
{
    FrameHead head;
    head.type = FrameType::notify;
    ++m_notified;
    WriteFrame(peer, head, std::move(body));
}

void PelmarEndpoint::Impl::PumpDirect(const PeerPtr& peer)
{
    bool takes = true;
    do {
        FillOutbox(peer);
        if (IsCollecting(*peer))
            return;
        takes = FlushDirect(*peer);
    } while (takes && peer->window.HasWaiting() && peer->socket->Waiting() < OUTBOX_BYTES);
    if (!takes)
        DirectPathEnded(peer);
    WatchDirect(*peer);
    if (m_stopped)
        m_changed.notify_all();
}

void PelmarEndpoint::Impl::FillOutbox(const PeerPtr& peer)
{
    while (peer->socket->Waiting() < OUTBOX_BYTES) {
        const PartnerWindow::Item item = peer->window.NextAnyway();
        if (item == nullptr)
            return;
        LeaveDirect(peer, item);
    }
}

// One message right after another, to one or to many: they are written together.
bool PelmarEndpoint::Impl::IsCollecting(Peer& peer)
{
    if (peer.socket->Waiting() == 0 || peer.socket->Waiting() >= BURST_BYTES)
        return false;
    if (!peer.writes_soon && IsInBurst(peer))
        WriteSoon(peer);
    return peer.writes_soon;
}

bool PelmarEndpoint::Impl::IsInBurst(Peer& peer)
{
    const auto now = Clock::now();
    m_send_rate.Count(now, std::exchange(m_notified, 0));
    return now - std::exchange(peer.last_sent, now) < BURST || m_send_rate.IsHigh(now);
}

void PelmarEndpoint::Impl::WriteSoon(Peer& peer)
{
    peer.writes_soon = true;
    if (m_bursts.empty())
        m_direct_poll->RemindIn(m_send_rate.IsHigh(peer.last_sent) ? FLOOD_DELAY : BURST_DELAY);
    m_bursts.push_back(peer.partner->number);
}

void PelmarEndpoint::Impl::WriteBursts()
{
    for (const std::uint64_t number : std::exchange(m_bursts, {})) {
        const auto found = m_direct_peers.find(number);
        if (found == m_direct_peers.end())
            continue;
        const PeerPtr peer = found->second;
        peer->writes_soon = false;
        FlushDirect(*peer);
        AfterProgress(peer);
    }
}

// What the socket has taken does not wait any more.
bool PelmarEndpoint::Impl::FlushDirect(Peer& peer)
{
    const bool takes = peer.socket->Flush();
    peer.window.DealtWith(peer.socket->Taken());
    return takes;
}

void PelmarEndpoint::Impl::WriteFrame(Peer& peer, const FrameHead& head, Payload payload)
{
    peer.socket->Write(head, std::move(payload), peer.window.Position());
    if (peer.socket->HasSlots() && !std::exchange(peer.gives_up_slots, true))
        GiveUpIdleSlots(peer.partner->number);
}

void PelmarEndpoint::Impl::GiveUpIdleSlots(std::uint64_t number)
{
    After(SLOT_PATIENCE, [this, number] {
        const auto found = m_direct_peers.find(number);
        if (found == m_direct_peers.end() || found->second->has_ended)
            return;
        Peer& peer = *found->second;
        peer.gives_up_slots = peer.socket->GiveUpIdleSlots();
        if (peer.gives_up_slots)
            GiveUpIdleSlots(number);
        WriteAtOnce(peer);
    });
}

void PelmarEndpoint::Impl::LeaveDirect(const PeerPtr& peer, const PartnerWindow::Item& item)
{
    FrameHead head;
    switch (item->kind) {
        case Outgoing::Kind::answer:
            AnswerDirect(*peer, static_cast<OutgoingAnswer&>(*item));
            return;
        case Outgoing::Kind::notification:
            WriteNotification(*peer, static_cast<OutgoingBody&>(*item).body);
            return;
        case Outgoing::Kind::request: {
            const auto request = std::static_pointer_cast<OpenRequest>(item);
            request->sent = true;
            head.type = FrameType::request;
            head.serial = ++peer->last_serial;
            peer->direct_requests[head.serial] = request;
            WriteFrame(*peer, head, std::move(request->body));
            PauseOrGoOn(*peer);
        }
    }
}

// A daemon that has passed the call on waits for an answer, too; the caller does not look at it.
void PelmarEndpoint::Impl::AnswerDirect(Peer& peer, const OutgoingAnswer& answer)
{
    FrameHead head;
    head.type = answer.error == nullptr ? FrameType::answer : FrameType::error;
    head.serial = answer.origin.serial;
    if (answer.origin.bus) {
        head.flags = FrameHead::OF_BUS;
        head.serial = answer.origin.bus->serial;
        SendNow(bus_message::Answer(*answer.origin.bus, pelmar_bytes::Take({})).get());
    }
    WriteFrame(peer, head,
               answer.error == nullptr ? answer.body
                                       : std::make_shared<const Bytes>(
                                             EncodeError(FrameErrorOf(answer.error), answer.text)));
}

bool PelmarEndpoint::Impl::IsWritingDirect() const
{
    return std::any_of(m_direct_peers.begin(), m_direct_peers.end(), [](const auto& entry) {
        return entry.second->socket->Waiting() != 0 && !entry.second->has_ended;
    });
}

void PelmarEndpoint::Impl::SayBye()
{
    for (const auto& entry : m_direct_peers) {
        WriteFrame(*entry.second, FrameHead(), nullptr);
        FlushDirect(*entry.second);
    }
}

// ---- Its end -------------------------------------------------------------------------------

// The bus will say what has become of the partner.
void PelmarEndpoint::Impl::DirectPathEnded(const PeerPtr& peer)
{
    if (std::exchange(peer->has_ended, true))
        return;
    WatchDirect(*peer);
    After(END_PATIENCE, [this, peer] {
        if (peer->gone || m_stopped)
            return;
        if (!peer->said_bye)
            ReportDirectPath(*peer, "its other end was closed");
        BeginAnewWithout(peer);
    });
}

// What came before the fault has been dealt with, and nothing after it is.
void PelmarEndpoint::Impl::DirectPathFailed(const PeerPtr& peer, const std::string& fault)
{
    if (peer->is_drained || peer->gone)
        return;
    peer->is_drained = true;
    ReportDirectPath(*peer, fault);
    BeginAnewWithout(peer);
}

void PelmarEndpoint::Impl::ReportDirectPath(const Peer& peer, const std::string& fault)
{
    Report(Problem::direct_path,
           "the direct path of " + peer.Name() + " has failed (" + fault +
               "): its traffic takes the bus from now on; find out what that process does",
           peer.Name());
}

// What was on its way may be lost: the partner is, too, and comes back on the bus.
void PelmarEndpoint::Impl::BeginAnewWithout(const PeerPtr& peer)
{
    const std::string name = peer->Name();
    m_never_direct.insert(name);
    BeginAnew(name);
}

// What has arrived is dealt with before the end is told.
void PelmarEndpoint::Impl::DrainDirectPath(const PeerPtr& peer)
{
    using ReadResult = DirectSocket::ReadResult;
    if (peer->socket == nullptr || !peer->reads_direct || m_stopped ||
        std::exchange(peer->is_drained, true))
        return;
    std::vector<Frame> frames;
    ReadResult result = ReadResult::some;
    while (result == ReadResult::some)
        result = peer->socket->Read(m_read_buffer, frames);
    for (Frame& frame : frames) {
        if (!TakeFrame(peer, std::move(frame)))
            return;
    }
}

void PelmarEndpoint::Impl::CloseDirectPath(Peer& peer)
{
    peer.opening.reset();
    if (peer.socket == nullptr)
        return;
    m_direct_poll->Forget(peer.socket->Number());
    m_direct_peers.erase(peer.partner->number);
    m_has_direct_peers = !m_direct_peers.empty();
    peer.partner->direct = false;
    peer.socket->Shutdown();
    peer.socket.reset();
}
