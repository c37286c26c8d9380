// The endpoint: what its threads share, the way onto the bus and back, and the traffic.
//
// Three kinds of threads meet here. The loop's thread owns the session and calls the handlers; the
// application's threads send; both share what is guarded by m_mutex. Nothing is called back with
// that mutex held.

#include "pelmar-endpoint.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "async-calls.h"
#include "bus-session.h"
#include "byte-variant.h"
#include "channel-names.h"
#include "event-loop.h"
#include "gio-handles.h"

#define PELMAR_LOG_FILE "pelmar-endpoint.cpp"
#include "log-lines.h"

namespace {

using std::chrono::milliseconds;

// What a queued notification costs beyond its bytes, about.
constexpr std::size_t MESSAGE_OVERHEAD = 512;

constexpr milliseconds FIRST_RECONNECT{50};
constexpr milliseconds LARGEST_RECONNECT{1000};

// How often a closed connection is seen before somebody else is said to hold it.
constexpr int PATIENT_RECONNECTS = 5;

// Longer than a daemon that works takes by far; the constructor does not wait for ever.
constexpr std::chrono::seconds FIRST_CONNECT_PATIENCE{25};

// How long a stopping endpoint waits for a daemon that has not taken all that was sent.
constexpr int LAST_WORDS_TIMEOUT_MS = 1000;

// After how long a daemon that has not said what it took is asked again, at first and at most.
constexpr milliseconds FIRST_CONFIRM{1000};
constexpr milliseconds LARGEST_CONFIRM{64000};

constexpr const char* FAILED = "org.vaska.pelmar.Error.Failed";

int CallTimeout(milliseconds timeout)
{
    const auto longest = static_cast<milliseconds::rep>(AsyncCalls::NO_TIMEOUT);
    return static_cast<int>(std::clamp<milliseconds::rep>(timeout.count(), 1, longest));
}

PelmarEndpoint::Status StatusOf(const GError& error)
{
    using Status = PelmarEndpoint::Status;
    if (error.domain == G_IO_ERROR) {
        switch (error.code) {
            case G_IO_ERROR_CANCELLED:
                return Status::stopped;
            case G_IO_ERROR_TIMED_OUT:
                return Status::timeout;
            case G_IO_ERROR_CLOSED:
                return Status::bus_gone;
            default:
                break;
        }
    }
    if (error.domain == G_DBUS_ERROR) {
        switch (error.code) {
            case G_DBUS_ERROR_NO_REPLY:
            case G_DBUS_ERROR_SERVICE_UNKNOWN:
            case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
                return Status::partner_lost;
            case G_DBUS_ERROR_TIMEOUT:
            case G_DBUS_ERROR_TIMED_OUT:
                return Status::timeout;
            case G_DBUS_ERROR_ACCESS_DENIED:
            case G_DBUS_ERROR_AUTH_FAILED:
                return Status::refused;
            case G_DBUS_ERROR_DISCONNECTED:
                return Status::bus_gone;
            default:
                break;
        }
    }
    return Status::remote_error;
}

PelmarEndpoint::Response ResponseOf(PelmarEndpoint::Status status)
{
    return {status, {}, PelmarEndpoint::ToString(status)};
}

// The error is there when there is no reply.
PelmarEndpoint::Response ResponseOf(GVariant* reply, const GError* error)
{
    if (reply != nullptr)
        return {PelmarEndpoint::Status::ok, pelmar_bytes::From(reply), {}};
    const ErrorPtr stripped(g_error_copy(error));
    g_dbus_error_strip_remote_error(stripped.get());
    PelmarEndpoint::Response response = ResponseOf(StatusOf(*error));
    if (const std::string text = TextOf(stripped.get()); !text.empty())
        response.error = text;
    return response;
}

}  // namespace

const char* PelmarEndpoint::ToString(Status status)
{
    switch (status) {
        case Status::ok:
            return "ok";
        case Status::no_such_partner:
            return "no such partner";
        case Status::not_ready:
            return "the partner is not ready";
        case Status::too_large:
            return "the message is too large";
        case Status::queue_full:
            return "the queue is full";
        case Status::bus_gone:
            return "the bus is gone";
        case Status::stopped:
            return "the endpoint is stopped";
        case Status::timeout:
            return "no answer within the timeout";
        case Status::refused:
            return "refused by the bus's policy";
        case Status::partner_lost:
            return "the partner is lost";
        case Status::remote_error:
            return "the partner answered with an error";
    }
    return "unknown status";
}

// ---- Replies -------------------------------------------------------------------------------

struct PelmarEndpoint::Reply::State {
    explicit State(GDBusMethodInvocation* taken) : invocation(taken) {}
    ~State() { Fail("the message was not answered"); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void Send(Bytes data)
    {
        if (data.size() > MAX_MESSAGE_BYTES)
            Fail("the answer is too large: " + std::to_string(data.size()) + " bytes");
        else if (GDBusMethodInvocation* taken = Take())
            g_dbus_method_invocation_return_value(taken, pelmar_bytes::Take(std::move(data)));
    }

    void Fail(const std::string& text)
    {
        const ValidText valid(text);
        if (GDBusMethodInvocation* taken = Take())
            g_dbus_method_invocation_return_dbus_error(taken, FAILED, valid.get());
    }

private:
    // An error's text has to be UTF-8.
    struct ValidText : std::unique_ptr<char, decltype(&g_free)> {
        explicit ValidText(const std::string& text)
            : unique_ptr(g_utf8_make_valid(text.c_str(), -1), g_free)
        {
        }
    };

    GDBusMethodInvocation* Take()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(invocation, nullptr);
    }

    std::mutex mutex;
    GDBusMethodInvocation* invocation;
};

PelmarEndpoint::Reply::Reply(std::shared_ptr<State> state) : m_state(std::move(state)) {}

void PelmarEndpoint::Reply::Send(Bytes data) const
{
    m_state->Send(std::move(data));
}

void PelmarEndpoint::Reply::Fail(const std::string& text) const
{
    m_state->Fail(text);
}

// ---- The endpoint --------------------------------------------------------------------------

class PelmarEndpoint::Impl final : public SessionEvents {
public:
    Impl(const std::string& channel, Handlers handlers, const Options& options);
    ~Impl() override;
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool Stop();
    Status Notify(const Bytes& data);
    Status Notify(const Bytes& data, const std::string& partner);
    std::vector<std::string> Partners() const;
    std::optional<std::string> WaitForPartner(std::chrono::steady_clock::time_point deadline) const;
    Response Request(const Bytes& data, const std::string& partner, milliseconds timeout);
    void Request(const Bytes& data, const std::string& partner, milliseconds timeout,
                 std::function<void(Response)> done);

private:
    using Lock = std::unique_lock<std::mutex>;
    using Connection = GObjectPtr<GDBusConnection>;

    // Threads of the application that are inside a waiting call.
    class Waiter {
    public:
        explicit Waiter(const Impl& impl) : m_impl(impl) { ++m_impl.m_waiters; }
        // With the mutex held, like the constructor.
        ~Waiter()
        {
            if (--m_impl.m_waiters == 0)
                m_impl.m_changed.notify_all();
        }
        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

    private:
        const Impl& m_impl;
    };

    // SessionEvents
    void OnPartnerFound(const std::string& partner) override;
    void OnPartnerReady(const std::string& partner) override;
    void OnPartnerGone(const std::string& partner) override;
    void OnMessage(Bytes data, GDBusMethodInvocation* invocation) override;
    void OnNotification(Bytes& data) override;
    void OnProblem(const std::string& text) override;
    void OnBusLost() override;

    // In the loop's thread.
    void Connect();
    void ConnectionFailed(const std::string& text);
    void StartSession(Connection connection);
    void EndSession();
    void LeaveChannel();
    void ReleaseConnection();
    void Shutdown();
    bool MayHaveSent() const;
    void AwaitTaken();
    void ReportOnce(const std::string& text);
    void Tell(EventLoop::Task event);
    void TellPending();
    void Answer(Bytes& data, const Reply& reply);
    void AbandonReplies();
    void ConfirmQueue();
    void ConfirmAgain();
    void QueueTaken(std::uint64_t up_to);
    template <typename... Parameters, typename... Arguments>
    void Call(const char* name, const std::function<void(Parameters...)>& handler,
              Arguments&&... arguments);

    // With the mutex held.
    std::uint64_t Unconfirmed() const { return m_queued - m_taken; }
    bool IsMuchUnconfirmed() const { return Unconfirmed() > m_options.queue_bytes / 4; }
    Status Admit(const std::string& partner, std::size_t size) const;
    Status AdmitToQueue(std::size_t cost) const;
    Status Emit(const Bytes& data, const std::vector<std::string>& partners);
    std::vector<std::string> ReadyPartners() const;

    BusMethod SendMethod(const std::string& partner) const
    {
        return {partner.c_str(), m_names.object_path.c_str(), m_names.interface.c_str(), "Send"};
    }

    // Constant after construction.
    const std::string m_channel;
    const Handlers m_handlers;
    const Options m_options;
    const ChannelRole& m_role;
    const ChannelNames m_names;

    // Owned by the loop's thread.
    std::shared_ptr<BusSession> m_session;
    std::deque<EventLoop::Task> m_events;
    std::vector<std::weak_ptr<Reply::State>> m_open_replies;
    AsyncCalls m_calls;
    milliseconds m_reconnect_delay = FIRST_RECONNECT;
    milliseconds m_confirm_patience = FIRST_CONFIRM;
    int m_closed_connections = 0;
    std::string m_reported_failure;
    bool m_was_off_bus = false;
    bool m_was_asked = false;  // so answers may be on their way

    // Guarded by m_mutex.
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::map<std::string, bool> m_partners;  // true: ready
    Connection m_connection;                 // null: not on the bus
    std::uint64_t m_queued = 0;              // bytes given to GIO
    std::uint64_t m_taken = 0;               // those of them that the daemon has taken for sure
    bool m_first_try_over = false;
    bool m_stopped = false;
    bool m_thread_ended = false;
    mutable int m_waiters = 0;

    // Last, so that its thread ends first and starts with everything else in place.
    EventLoop m_loop;
    LoopTimer m_reconnect_timer{m_loop};
    LoopTimer m_confirm_timer{m_loop};
};

PelmarEndpoint::Impl::Impl(const std::string& channel, Handlers handlers, const Options& options)
    : m_channel(channel),
      m_handlers(std::move(handlers)),
      m_options(options),
      m_role(options.role == Role::service ? SERVICE_CHANNEL : CLIENT_CHANNEL),
      m_names(m_role.names_of(channel))
{
    m_loop.Post([this] { Connect(); });
    Lock lock(m_mutex);
    m_changed.wait_for(lock, FIRST_CONNECT_PATIENCE, [this] { return m_first_try_over; });
}

PelmarEndpoint::Impl::~Impl()
{
    if (!Stop()) {
        // GCOVR_EXCL_START: a process that aborts writes no counts
        PELMAR_ERROR("An endpoint must not be destroyed inside one of its handlers\n\n",
                     PELMAR_AT(__func__));
        std::abort();
        // GCOVR_EXCL_STOP
    }
    Lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_waiters == 0; });
}

// ---- Onto the bus and off it ---------------------------------------------------------------

void PelmarEndpoint::Impl::Connect()
{
    GError* raw_error = nullptr;
    Connection connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, m_calls.Cancellation(), &raw_error));
    const ErrorPtr error(raw_error);
    // A connection that is closed already ends the process all the same, when its loop hears of it.
    if (connection != nullptr)
        g_dbus_connection_set_exit_on_close(connection.get(), m_options.exit_when_bus_dies);
    if (connection == nullptr) {
        ConnectionFailed("the system bus cannot be reached (" + TextOf(error.get()) +
                         "): is its daemon running, and DBUS_SYSTEM_BUS_ADDRESS right?");
    } else if (g_dbus_connection_is_closed(connection.get()) != FALSE) {
        connection.reset();
        // Other endpoints of the process let go of it a moment later.
        const bool held = ++m_closed_connections > PATIENT_RECONNECTS;
        ConnectionFailed(held ? "the connection to the bus cannot be renewed: something else in "
                                "this process holds the closed one and has to release it"
                              : "");
    } else {
        StartSession(std::move(connection));
    }
    const Lock lock(m_mutex);
    m_first_try_over = true;
    m_changed.notify_all();
}

void PelmarEndpoint::Impl::ConnectionFailed(const std::string& text)
{
    m_was_off_bus = true;
    if (!text.empty())
        ReportOnce(text);
    m_reconnect_timer.Arm(m_reconnect_delay, [this] { Connect(); });
    m_reconnect_delay = std::min(LARGEST_RECONNECT, m_reconnect_delay * 2);
}

void PelmarEndpoint::Impl::StartSession(Connection connection)
{
    m_reconnect_delay = FIRST_RECONNECT;
    m_closed_connections = 0;
    m_reported_failure.clear();
    m_session = std::make_shared<BusSession>(connection.get(), m_role, m_channel,
                                             m_options.intake_bytes, m_loop, m_calls, *this);
    m_session->Open();
    {
        const Lock lock(m_mutex);
        m_connection = std::move(connection);
        m_taken = m_queued;
    }
    if (std::exchange(m_was_off_bus, false))
        Tell([this] { Call("bus_back", m_handlers.bus_back); });
}

void PelmarEndpoint::Impl::OnBusLost()
{
    m_loop.Post([this] { EndSession(); });
}

void PelmarEndpoint::Impl::EndSession()
{
    PELMAR_ERROR("Channel %s: the connection to the bus is lost\n\n", PELMAR_AT(__func__),
                 m_channel.c_str());
    const std::vector<std::string> lost = Partners();
    LeaveChannel();
    ReleaseConnection();
    Tell([this] { Call("bus_lost", m_handlers.bus_lost); });
    for (const std::string& partner : lost)
        Tell([this, partner] { Call("lost", m_handlers.lost, partner); });
    m_was_off_bus = true;
    m_reconnect_timer.Arm(m_reconnect_delay, [this] { Connect(); });
}

void PelmarEndpoint::Impl::LeaveChannel()
{
    AbandonReplies();
    m_session.reset();
}

// No reference to the connection is left behind: it would keep a closed one from being renewed.
void PelmarEndpoint::Impl::ReleaseConnection()
{
    const Lock lock(m_mutex);
    m_partners.clear();
    m_connection.reset();
}

bool PelmarEndpoint::Impl::Stop()
{
    if (m_loop.IsLoopThread()) {
        PELMAR_ERROR("An endpoint cannot be stopped inside one of its handlers\n\n",
                     PELMAR_AT(__func__));
        return false;
    }
    Lock lock(m_mutex);
    if (!m_stopped) {
        m_stopped = true;
        m_changed.notify_all();
        m_calls.Cancel();
        m_loop.Post([this] { Shutdown(); });
        lock.unlock();
        m_loop.Join();
        lock.lock();
        m_thread_ended = true;
        m_changed.notify_all();
    }
    m_changed.wait(lock, [this] { return m_thread_ended; });
    return true;
}

void PelmarEndpoint::Impl::Shutdown()
{
    m_reconnect_timer.Disarm();
    m_confirm_timer.Disarm();
    m_events.clear();
    LeaveChannel();
    AwaitTaken();
    ReleaseConnection();
    // The callbacks of requests are still owed.
    m_loop.RunUntil([this] { return m_calls.Pending() == 0; });
    // Calls that came before the object went get their error, and GIO frees what it held for the
    // subscriptions.
    m_loop.RunWhatIsReady();
    m_loop.End();
}

bool PelmarEndpoint::Impl::MayHaveSent() const
{
    const Lock lock(m_mutex);
    return m_connection != nullptr && (m_was_asked || Unconfirmed() != 0);
}

// A connection that nobody else holds is closed with whatever waits in it. The daemon answers after
// it has taken everything that was sent before the question.
void PelmarEndpoint::Impl::AwaitTaken()
{
    if (!MayHaveSent())
        return;
    AsyncCalls last_words;
    bool is_over = false;
    last_words.Start(m_connection.get(), DaemonMethod("GetId"), nullptr, nullptr,
                     LAST_WORDS_TIMEOUT_MS,
                     [&is_over](GVariant* /*reply*/, const GError* /*error*/) { is_over = true; });
    m_loop.RunUntil([&is_over] { return is_over; });
}

// ---- Telling the application ---------------------------------------------------------------

template <typename... Parameters, typename... Arguments>
void PelmarEndpoint::Impl::Call(const char* name, const std::function<void(Parameters...)>& handler,
                                Arguments&&... arguments)
{
    if (!handler)
        return;
    try {
        handler(std::forward<Arguments>(arguments)...);
    } catch (const std::exception& exception) {
        PELMAR_ERROR("The handler %s threw: %s\n\n", PELMAR_AT(__func__), name, exception.what());
    } catch (...) {
        PELMAR_ERROR("The handler %s threw\n\n", PELMAR_AT(__func__), name);
    }
}

// Events come with the channel's lock held, so they are told a moment later; but before any
// traffic that follows them.
void PelmarEndpoint::Impl::Tell(EventLoop::Task event)
{
    m_events.push_back(std::move(event));
    m_loop.Post([this] { TellPending(); });
}

void PelmarEndpoint::Impl::TellPending()
{
    while (!m_events.empty()) {
        const EventLoop::Task event = std::move(m_events.front());
        m_events.pop_front();
        event();
    }
}

void PelmarEndpoint::Impl::OnPartnerFound(const std::string& partner)
{
    const Lock lock(m_mutex);
    m_partners.emplace(partner, false);
}

void PelmarEndpoint::Impl::OnPartnerReady(const std::string& partner)
{
    {
        const Lock lock(m_mutex);
        m_partners[partner] = true;
        m_changed.notify_all();
    }
    Tell([this, partner] { Call("ready", m_handlers.ready, partner); });
}

void PelmarEndpoint::Impl::OnPartnerGone(const std::string& partner)
{
    bool was_ready = false;
    {
        const Lock lock(m_mutex);
        was_ready = m_partners[partner];
        m_partners.erase(partner);
    }
    if (was_ready)
        Tell([this, partner] { Call("lost", m_handlers.lost, partner); });
}

void PelmarEndpoint::Impl::OnProblem(const std::string& text)
{
    PELMAR_ERROR("Channel %s: %s\n\n", PELMAR_AT(__func__), m_channel.c_str(), text.c_str());
    Tell([this, text] { Call("problem", m_handlers.problem, text); });
}

void PelmarEndpoint::Impl::ReportOnce(const std::string& text)
{
    if (std::exchange(m_reported_failure, text) != text)
        OnProblem(text);
}

// ---- Traffic in ----------------------------------------------------------------------------

void PelmarEndpoint::Impl::OnNotification(Bytes& data)
{
    TellPending();
    Call("notification", m_handlers.notification, data);
}

void PelmarEndpoint::Impl::OnMessage(Bytes data, GDBusMethodInvocation* invocation)
{
    TellPending();
    m_was_asked = true;
    const Reply reply(std::make_shared<Reply::State>(invocation));
    if (m_handlers.deferred_message) {
        m_open_replies.erase(std::remove_if(m_open_replies.begin(), m_open_replies.end(),
                                            [](const auto& open) { return open.expired(); }),
                             m_open_replies.end());
        m_open_replies.push_back(reply.m_state);
        Call("deferred_message", m_handlers.deferred_message, data, reply);
    } else {
        Answer(data, reply);
    }
}

void PelmarEndpoint::Impl::Answer(Bytes& data, const Reply& reply)
{
    try {
        if (m_handlers.message)
            reply.Send(m_handlers.message(data));
        else
            reply.Fail("this endpoint takes no messages");
    } catch (const std::exception& exception) {
        reply.Fail(exception.what());
    } catch (...) {
        reply.Fail("the handler failed");
    }
}

void PelmarEndpoint::Impl::AbandonReplies()
{
    for (const auto& open : m_open_replies) {
        if (const auto state = open.lock())
            state->Fail("the endpoint left the bus before it answered");
    }
    m_open_replies.clear();
}

// ---- Traffic out ---------------------------------------------------------------------------

PelmarEndpoint::Status PelmarEndpoint::Impl::Admit(const std::string& partner,
                                                   std::size_t size) const
{
    if (m_stopped)
        return Status::stopped;
    if (size > MAX_MESSAGE_BYTES)
        return Status::too_large;
    if (m_connection == nullptr)
        return Status::bus_gone;
    const auto found = m_partners.find(partner);
    if (found == m_partners.end())
        return Status::no_such_partner;
    return found->second ? Status::ok : Status::not_ready;
}

// An empty queue takes any message, also one that is larger than the queue.
PelmarEndpoint::Status PelmarEndpoint::Impl::AdmitToQueue(std::size_t cost) const
{
    const bool fits = Unconfirmed() == 0 || Unconfirmed() + cost <= m_options.queue_bytes;
    return fits ? Status::ok : Status::queue_full;
}

std::vector<std::string> PelmarEndpoint::Impl::ReadyPartners() const
{
    std::vector<std::string> ready;
    for (const auto& [partner, is_ready] : m_partners) {
        if (is_ready)
            ready.push_back(partner);
    }
    return ready;
}

PelmarEndpoint::Status PelmarEndpoint::Impl::Notify(const Bytes& data, const std::string& partner)
{
    const Lock lock(m_mutex);
    const Status status = Admit(partner, data.size());
    return status == Status::ok ? Emit(data, {partner}) : status;
}

PelmarEndpoint::Status PelmarEndpoint::Impl::Notify(const Bytes& data)
{
    const Lock lock(m_mutex);
    const std::vector<std::string> partners = ReadyPartners();
    const Status status = Admit(partners.empty() ? "" : partners.front(), data.size());
    return status == Status::ok ? Emit(data, partners) : status;
}

PelmarEndpoint::Status PelmarEndpoint::Impl::Emit(const Bytes& data,
                                                  const std::vector<std::string>& partners)
{
    const std::size_t cost = partners.size() * (data.size() + MESSAGE_OVERHEAD);
    const Status status = AdmitToQueue(cost);
    if (status != Status::ok)
        return status;
    const VariantPtr body(g_variant_ref_sink(pelmar_bytes::Copy(data)));
    for (const std::string& partner : partners) {
        GError* error = nullptr;
        g_dbus_connection_emit_signal(m_connection.get(), partner.c_str(),
                                      m_names.object_path.c_str(), m_names.interface.c_str(),
                                      "SendSignal", body.get(), &error);
        const ErrorPtr held(error);
        if (error != nullptr)
            return Status::bus_gone;
    }
    const bool was_much = IsMuchUnconfirmed();
    m_queued += cost;
    if (!was_much && IsMuchUnconfirmed())
        m_loop.Post([this] { ConfirmQueue(); });
    return Status::ok;
}

// See AwaitTaken.
void PelmarEndpoint::Impl::ConfirmQueue()
{
    m_confirm_timer.Disarm();
    const Lock lock(m_mutex);
    const auto answered = [this, asked_at = m_queued](GVariant* reply, const GError* error) {
        if (reply != nullptr)
            QueueTaken(asked_at);
        else if (StatusOf(*error) == Status::timeout)
            ConfirmAgain();
    };
    // It may have gone since this was asked for.
    if (m_connection != nullptr)
        m_calls.Start(m_connection.get(), DaemonMethod("GetId"), nullptr, nullptr,
                      static_cast<int>(m_confirm_patience.count()), answered);
}

// A dbus-daemon that stopped to read, because too much of this process's is unread, may have the
// question already and look at it only when more comes.
void PelmarEndpoint::Impl::ConfirmAgain()
{
    m_confirm_patience = std::min(LARGEST_CONFIRM, m_confirm_patience * 2);
    ConfirmQueue();
}

void PelmarEndpoint::Impl::QueueTaken(std::uint64_t up_to)
{
    m_confirm_patience = FIRST_CONFIRM;
    const Lock lock(m_mutex);
    m_taken = std::max(m_taken, up_to);
    if (IsMuchUnconfirmed())
        m_loop.Post([this] { ConfirmQueue(); });
    else if (Unconfirmed() != 0)
        m_confirm_timer.Arm(FIRST_CONFIRM, [this] { ConfirmQueue(); });
}

PelmarEndpoint::Response PelmarEndpoint::Impl::Request(const Bytes& data,
                                                       const std::string& partner,
                                                       milliseconds timeout)
{
    Lock lock(m_mutex);
    const Status status = Admit(partner, data.size());
    if (status != Status::ok)
        return ResponseOf(status);
    const Waiter waiter(*this);
    Connection connection = NewReference(m_connection.get());
    lock.unlock();
    const BusMethod method = SendMethod(partner);
    GError* raw_error = nullptr;
    const VariantPtr reply(g_dbus_connection_call_sync(
        connection.get(), method.destination, method.path, method.interface, method.name,
        pelmar_bytes::Copy(data), G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
        CallTimeout(timeout), m_calls.Cancellation(), &raw_error));
    const ErrorPtr error(raw_error);
    connection.reset();
    Response response = ResponseOf(reply.get(), error.get());
    lock.lock();
    return response;
}

void PelmarEndpoint::Impl::Request(const Bytes& data, const std::string& partner,
                                   milliseconds timeout, std::function<void(Response)> done)
{
    const auto finish = [this, done = std::move(done)](Response response) {
        Call("done", done, std::move(response));
    };
    Lock lock(m_mutex);
    const Status status = Admit(partner, data.size());
    if (status == Status::stopped) {
        lock.unlock();
        finish(ResponseOf(status));
        return;
    }
    m_loop.Post([this, status, data, partner, timeout, finish] {
        Lock relock(m_mutex);
        // It may have gone in between.
        const Status now =
            status == Status::ok && m_connection == nullptr ? Status::bus_gone : status;
        if (now == Status::ok) {
            m_calls.Start(m_connection.get(), SendMethod(partner), pelmar_bytes::Copy(data), "(ay)",
                          CallTimeout(timeout), [finish](GVariant* reply, const GError* error) {
                              finish(ResponseOf(reply, error));
                          });
            return;
        }
        relock.unlock();
        finish(ResponseOf(now));
    });
}

// ---- Waiting -------------------------------------------------------------------------------

std::vector<std::string> PelmarEndpoint::Impl::Partners() const
{
    const Lock lock(m_mutex);
    return ReadyPartners();
}

std::optional<std::string> PelmarEndpoint::Impl::WaitForPartner(
    std::chrono::steady_clock::time_point deadline) const
{
    Lock lock(m_mutex);
    const Waiter waiter(*this);
    std::vector<std::string> ready = ReadyPartners();
    const auto is_over = [&] {
        ready = ReadyPartners();
        return m_stopped || !ready.empty();
    };
    if (!m_loop.IsLoopThread())
        m_changed.wait_until(lock, deadline, is_over);
    if (m_stopped || ready.empty())
        return std::nullopt;
    return ready.front();
}

// ---- The public class ----------------------------------------------------------------------

PelmarEndpoint::PelmarEndpoint(const std::string& channel, Handlers handlers, Options options)
{
    if (const std::string fault = FaultInChannelName(channel); !fault.empty())
        throw std::invalid_argument(fault);
    m_impl = std::make_unique<Impl>(channel, std::move(handlers), options);
}

PelmarEndpoint::PelmarEndpoint(const std::string& channel, Handlers handlers)
    : PelmarEndpoint(channel, std::move(handlers), Options())
{
}

PelmarEndpoint::~PelmarEndpoint() = default;

bool PelmarEndpoint::Stop()
{
    return m_impl->Stop();
}

PelmarEndpoint::Status PelmarEndpoint::Notify(const Bytes& data)
{
    return m_impl->Notify(data);
}

PelmarEndpoint::Status PelmarEndpoint::Notify(const Bytes& data, const std::string& partner)
{
    return m_impl->Notify(data, partner);
}

std::vector<std::string> PelmarEndpoint::Partners() const
{
    return m_impl->Partners();
}

std::optional<std::string> PelmarEndpoint::WaitForPartner(
    std::chrono::steady_clock::time_point deadline) const
{
    return m_impl->WaitForPartner(deadline);
}

PelmarEndpoint::Response PelmarEndpoint::Request(const Bytes& data, const std::string& partner,
                                                 milliseconds timeout)
{
    return m_impl->Request(data, partner, timeout);
}

void PelmarEndpoint::Request(const Bytes& data, const std::string& partner, milliseconds timeout,
                             std::function<void(Response response)> done)
{
    m_impl->Request(data, partner, timeout, std::move(done));
}
