// The endpoint's life: onto the bus, off it when the daemon dies, back, and the end.

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "endpoint-impl.h"
#include "endpoint-tasks.h"
#include "reconnect-delay.h"

#define PELMAR_LOG_FILE "endpoint-life.cpp"
#include "log-lines.h"

namespace {

using std::chrono::milliseconds;

// A daemon that is restarted is back within this as a rule; then nobody has to do anything.
constexpr milliseconds UNREMARKABLE_ABSENCE{1000};

// Longer than a daemon that works takes by far.
constexpr milliseconds CONNECT_PATIENCE{25000};

// How long a closed socket takes at most to be noticed by GIO's thread.
constexpr milliseconds CLOSE_PATIENCE{1000};

// What GLib needs for a main context and a connection; without them it ends the process.
constexpr int DESCRIPTORS_NEEDED = 6;

constexpr auto CONNECTION_FLAGS = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

bool HasFreeDescriptors()
{
    std::array<int, DESCRIPTORS_NEEDED> taken{};
    for (int& descriptor : taken)
        descriptor = eventfd(0, EFD_CLOEXEC);
    const bool all = std::all_of(taken.begin(), taken.end(), [](int fd) { return fd >= 0; });
    for (const int descriptor : taken) {
        if (descriptor >= 0)
            close(descriptor);
    }
    return all;
}

GDBusArgInfo BytesArgument(const char* name)
{
    return {-1, const_cast<gchar*>(name), const_cast<gchar*>("ay"), nullptr};
}

// What the class of the plain channel exports.
GDBusInterfaceInfo* ChannelInterface()
{
    static GDBusArgInfo in = BytesArgument("data");
    static GDBusArgInfo out = BytesArgument("response");
    static std::array<GDBusArgInfo*, 2> in_list = {&in, nullptr};
    static std::array<GDBusArgInfo*, 2> out_list = {&out, nullptr};
    static GDBusMethodInfo send = {-1, const_cast<gchar*>(CHANNEL_METHOD), in_list.data(),
                                   out_list.data(), nullptr};
    static std::array<GDBusMethodInfo*, 2> methods = {&send, nullptr};
    static GDBusInterfaceInfo interface = {
        -1, const_cast<gchar*>(CHANNEL_INTERFACE), methods.data(), nullptr, nullptr, nullptr};
    return &interface;
}

// Calls are taken before GIO comes to them, but for those of the last moment.
void cb_LateCall(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                 const gchar* /*interface*/, const gchar* /*method*/, GVariant* /*parameters*/,
                 GDBusMethodInvocation* invocation, gpointer /*user_data*/)
{
    g_dbus_method_invocation_return_dbus_error(invocation, bus_error::GONE,
                                               "the endpoint left the channel");
}

}  // namespace

PelmarEndpoint::Impl::Impl(Role role, const std::string& channel)
    : m_role(role),
      m_channel(channel),
      m_own_names(StageNamesOf(channel, ChannelRoleOf(role))),
      m_peer_names(StageNamesOf(channel, OtherRole(ChannelRoleOf(role)))),
      m_object_path(ObjectPathOf(channel)),
      m_random(std::random_device{}())
{
}

PelmarEndpoint::Impl::Handlers& PelmarEndpoint::Impl::SettableHandlers()
{
    const Lock lock(m_mutex);
    if (m_started)
        throw std::logic_error("the handlers of an endpoint are set before Start");
    return m_handlers;
}

PelmarEndpoint::Impl::Settings& PelmarEndpoint::Impl::SettableSettings()
{
    const Lock lock(m_mutex);
    if (m_started)
        throw std::logic_error("the settings of an endpoint are made before Start");
    return m_settings;
}

// ---- Onto the bus --------------------------------------------------------------------------

void PelmarEndpoint::Impl::Start()
{
    Lock lock(m_mutex);
    if (m_started || m_stopped)
        throw std::logic_error("an endpoint is started once, and not after Stop");
    if (!HasFreeDescriptors())
        throw std::system_error(EMFILE, std::generic_category(), "an endpoint cannot be started");
    auto loop = std::make_unique<EventLoop>();
    HandlerQueue::Executor executor;
    if (m_settings.context != nullptr)
        executor = [context = m_settings.context](const std::function<void()>& task) {
            PostTo(context.get(), task);
        };
    else if (m_settings.executor)
        // The application's code must not run with the mutex held.
        executor = [loop = loop.get(),
                    hand_on = m_settings.executor](const std::function<void()>& task) {
            loop->Post([hand_on, task] { CallGuarded("executor", [&] { hand_on(task); }); });
        };
    PrepareDirectPaths(*loop);
    HandlerIdle* const idle = executor ? nullptr : m_direct_idle.get();
    try {
        m_queue->Open(std::move(executor), idle);
    } catch (...) {
        m_direct_source.reset();
        loop->Post([&loop] { loop->End(); });
        loop->Join();
        throw;
    }
    m_loop = std::move(loop);
    m_started = true;
    m_timer = std::make_unique<LoopTimer>(*m_loop);
    m_loop->Post([this] { Connect(); });
    m_changed.wait(lock, [this] { return m_first_try_over || m_stopped; });
}

void PelmarEndpoint::Impl::Connect()
{
    if (!HasFreeDescriptors()) {
        ConnectionFailed("the process has too few descriptors left");
        return;
    }
    std::string address = m_settings.address;
    if (address.empty()) {
        GError* error = nullptr;
        gchar* found = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
        const ErrorPtr held(error);
        if (found == nullptr) {
            ConnectionFailed(TextOf(error));
            return;
        }
        address = found;
        g_free(found);
    }
    ConnectTo(address);
}

void PelmarEndpoint::Impl::ConnectTo(const std::string& address)
{
    m_connecting.reset(g_cancellable_new());
    m_connect_timer = std::make_unique<LoopTimer>(*m_loop);
    m_connect_timer->Arm(CONNECT_PATIENCE,
                         [connecting = m_connecting.get()] { g_cancellable_cancel(connecting); });
    g_dbus_connection_new_for_address(address.c_str(), CONNECTION_FLAGS, nullptr,
                                      m_connecting.get(), cb_Connected, this);
}

void PelmarEndpoint::Impl::cb_Connected(GObject* /*source*/, GAsyncResult* result,
                                        gpointer user_data)
{
    auto& self = *static_cast<Impl*>(user_data);
    GError* error = nullptr;
    Connection connection(g_dbus_connection_new_for_address_finish(result, &error));
    const ErrorPtr held(error);
    self.m_connecting.reset();
    self.m_connect_timer.reset();
    if (connection != nullptr)
        self.ConnectionMade(std::move(connection));
    else
        self.ConnectionFailed(TextOf(error));
}

void PelmarEndpoint::Impl::ConnectionFailed(const std::string& reason)
{
    const Lock lock(m_mutex);
    if (!m_stopped) {
        const bool is_first = !std::exchange(m_first_try_over, true);
        if (std::exchange(m_was_off_bus, true) == false)
            m_off_bus_since = Clock::now();
        if (is_first || Clock::now() - m_off_bus_since >= UNREMARKABLE_ABSENCE)
            Report(Problem::bus_unreachable,
                   "the bus cannot be reached" +
                       (m_settings.address.empty() ? "" : " at " + m_settings.address) + " (" +
                       reason + "): is its daemon running, and the address right?");
        ConnectLater();
    }
    m_changed.notify_all();
}

void PelmarEndpoint::Impl::ConnectLater()
{
    const auto absence = std::chrono::duration_cast<milliseconds>(Clock::now() - m_off_bus_since);
    After(ReconnectDelayAfter(absence), [this] { m_loop->Post([this] { Connect(); }); });
}

void PelmarEndpoint::Impl::ConnectionMade(Connection connection)
{
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    m_closed_handler = g_signal_connect(connection.get(), "closed", G_CALLBACK(cb_Closed), this);
    // Not the filter's to free: GIO would do that in this loop, also when the loop has ended.
    auto* const access = new Access(weak_from_this());
    g_object_set_data_full(G_OBJECT(connection.get()), "pelmar-endpoint", access,
                           [](gpointer held) { delete static_cast<Access*>(held); });
    m_filter = g_dbus_connection_add_filter(connection.get(), cb_Message, access, nullptr);
    static const GDBusInterfaceVTable vtable = {cb_LateCall, nullptr, nullptr, {}};
    m_object =
        g_dbus_connection_register_object(connection.get(), m_object_path.c_str(),
                                          ChannelInterface(), &vtable, nullptr, nullptr, nullptr);
    const bool is_closed = g_dbus_connection_is_closed(connection.get()) != FALSE;
    if (is_closed)
        m_loop->Post([this] { ConnectionClosed(); });
    const Lock lock(m_mutex);
    m_connection = std::move(connection);
    m_name = g_dbus_connection_get_unique_name(m_connection.get());
    ++m_session;
    if (m_stopped)
        return;
    ReportOver(Problem::bus_unreachable);
    m_handshake.emplace(ChannelRoleOf(m_role));
    for (const Stage stage : ALL_STAGES) {
        if (m_role == Role::service || stage != Stage::ack) {
            ++m_first_rules;
            ListenTo(stage, true);
        }
    }
    Carry(m_handshake->Announce());
}

// Nobody's pulse goes unheard any more.
void PelmarEndpoint::Impl::IsThere()
{
    m_is_there = true;
    m_first_try_over = true;
    m_changed.notify_all();
    if (std::exchange(m_was_off_bus, false))
        Tell("OnBusBack", m_handlers.bus_back);
}

// ---- Off it --------------------------------------------------------------------------------

void PelmarEndpoint::Impl::cb_Closed(GDBusConnection* /*connection*/, gboolean /*by_peer*/,
                                     GError* /*error*/, gpointer user_data)
{
    static_cast<Impl*>(user_data)->ConnectionClosed();
}

void PelmarEndpoint::Impl::ConnectionClosed()
{
    {
        const Lock lock(m_mutex);
        m_is_closed = true;
        if (m_stopped) {
            m_changed.notify_all();
            return;
        }
        if (m_connection == nullptr)
            return;
        PELMAR_DEBUG("Channel %s: the connection to the bus is lost\n\n", PELMAR_AT(__func__),
                     m_channel.c_str());
        if (m_is_there)
            Tell("OnBusLost", m_handlers.bus_lost);
        LeaveBus(Status::bus_gone);
        m_was_off_bus = true;
        m_off_bus_since = Clock::now();
        m_first_try_over = true;
        m_changed.notify_all();
        ConnectLater();
    }
    ReleaseConnection();
    if (m_settings.exit_when_bus_dies)
        kill(getpid(), SIGTERM);
}

// Nothing of the stay on this bus is left but the connection itself.
void PelmarEndpoint::Impl::LeaveBus(Status status)
{
    for (const PeerPtr& peer : std::vector<PeerPtr>(m_ready))
        DrainDirectPath(peer);
    const std::vector<PeerPtr> ready = std::move(m_ready);
    m_ready.clear();
    std::vector<PeerPtr> peers;
    for (const auto& entry : m_peers)
        peers.push_back(entry.second);
    for (const PeerPtr& peer : peers) {
        peer->partner->ready = false;
        FinishAll(*peer, status);
        m_deadlines.Remove(peer->timer);
        Forget(*peer);
    }
    for (const PeerPtr& peer : ready)
        Tell("OnLost", m_handlers.lost, Partner(peer->partner));
    m_peers.clear();
    m_handshake.reset();
    m_calls.clear();
    m_never_direct.clear();
    m_strangers_questions.clear();
    m_backlog.clear();
    m_rules_are_short = false;
    m_first_rules = 0;
    m_is_there = false;
    m_pulses = {};
    m_open_requests = 0;
    m_open_questions = 0;
    m_given = m_taken = 0;
    m_confirming = false;
    m_name.clear();
    ++m_session;
    m_left = std::move(m_connection);
}

// In the loop's thread: GIO tells its news there.
void PelmarEndpoint::Impl::ReleaseConnection()
{
    Connection connection;
    {
        const Lock lock(m_mutex);
        connection = std::move(m_left);
        m_is_closed = false;
    }
    if (connection == nullptr)
        return;
    g_signal_handler_disconnect(connection.get(), m_closed_handler);
    g_dbus_connection_remove_filter(connection.get(), m_filter);
    g_dbus_connection_unregister_object(connection.get(), m_object);
}

// ---- The end -------------------------------------------------------------------------------

bool PelmarEndpoint::Impl::Stop(milliseconds flush)
{
    Lock lock(m_mutex);
    const bool is_in_executor = m_loop != nullptr && m_loop->IsLoopThread();
    if (m_queue->IsInside() || is_in_executor) {
        PELMAR_ERROR("An endpoint cannot be stopped inside one of its handlers\n\n",
                     PELMAR_AT(__func__));
        return false;
    }
    m_flush_patience = std::min(m_flush_patience, flush);
    if (std::exchange(m_stopped, true)) {
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_stop_ended; });
        return true;
    }
    m_changed.notify_all();
    if (m_direct_poll != nullptr)
        m_direct_poll->End();
    for (const RequestPtr& request : AllOpenRequests())
        Finish(request, {Status::stopped});
    lock.unlock();
    m_queue->Close();
    AbandonReplies();
    lock.lock();
    if (m_loop != nullptr) {
        Flush(lock);
        lock.unlock();
        m_loop->Post([this] { Shutdown(); });
        m_loop->Join();
        lock.lock();
    }
    const std::deque<HandlerQueue::Task> owed = std::move(m_owed);
    lock.unlock();
    m_queue->Abandon(owed);
    lock.lock();
    m_stop_ended = true;
    m_changed.notify_all();
    return true;
}

// Whoever waits for an answer is told that none comes.
void PelmarEndpoint::Impl::AbandonReplies()
{
    std::vector<std::shared_ptr<Reply::State>> open;
    {
        const Lock lock(m_mutex);
        for (const auto& reply : m_open_replies) {
            if (auto state = reply.lock())
                open.push_back(std::move(state));
        }
        m_open_replies.clear();
    }
    for (const auto& reply : open)
        Fail(*reply, "the endpoint left the channel before it answered");
}

std::vector<PelmarEndpoint::Impl::RequestPtr> PelmarEndpoint::Impl::AllOpenRequests() const
{
    std::vector<RequestPtr> all;
    for (const auto& entry : m_peers)
        all.insert(all.end(), entry.second->requests.begin(), entry.second->requests.end());
    return all;
}

// Waits until the daemon has all that was sent; the partners' windows stay in force, since a daemon
// that is given more than it can pass on may pass on nothing.
void PelmarEndpoint::Impl::Flush(Lock& lock)
{
    const auto is_flushed = [this] {
        if (m_connection == nullptr || m_is_closed)
            return true;
        const bool is_waiting = std::any_of(m_peers.begin(), m_peers.end(), [](const auto& entry) {
            return entry.second->window.HasWaiting();
        });
        if (!is_waiting && m_given != m_taken)
            ConfirmDaemon();
        return !is_waiting && m_given == m_taken && !IsWritingDirect();
    };
    const auto start = Clock::now();
    while (!is_flushed() && Clock::now() < start + m_flush_patience)
        m_changed.wait_until(lock, start + m_flush_patience);
}

void PelmarEndpoint::Impl::Shutdown()
{
    m_timer.reset();
    m_direct_source.reset();
    if (m_connecting != nullptr) {
        g_cancellable_cancel(m_connecting.get());
        m_loop->RunUntil([this] { return m_connecting == nullptr; });
    }
    Connection connection;
    {
        const Lock lock(m_mutex);
        if (m_connection != nullptr) {
            connection = NewReference(m_connection.get());
            SayBye();
            LeaveBus(Status::stopped);
        }
        m_deadlines.Clear();
    }
    if (connection != nullptr) {
        // The daemon sees this at once, whatever waits to be written.
        GIOStream* stream = g_dbus_connection_get_stream(connection.get());
        GSocket* socket = g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream));
        g_socket_shutdown(socket, TRUE, TRUE, nullptr);
        bool is_over = false;
        LoopTimer patience(*m_loop);
        patience.Arm(CLOSE_PATIENCE, [&is_over] { is_over = true; });
        m_loop->RunUntil([&] { return is_over || m_is_closed; });
        connection.reset();
        ReleaseConnection();
    }
    m_connect_timer.reset();
    // GIO's news that wait there hold the connection, and that the context: for ever.
    m_loop->RunWhatIsReady();
    m_loop->End();
}

// ---- What the application asks ---------------------------------------------------------------

bool PelmarEndpoint::Impl::IsOnBus() const
{
    const Lock lock(m_mutex);
    return m_connection != nullptr && !m_stopped;
}

std::string PelmarEndpoint::Impl::Name() const
{
    const Lock lock(m_mutex);
    return m_stopped ? "" : m_name;
}

std::vector<PelmarEndpoint::Partner> PelmarEndpoint::Impl::Partners() const
{
    const Lock lock(m_mutex);
    std::vector<Partner> partners;
    if (!m_stopped) {
        for (const PeerPtr& peer : m_ready)
            partners.push_back(Partner(peer->partner));
    }
    return partners;
}

std::optional<PelmarEndpoint::Partner> PelmarEndpoint::Impl::WaitForPartner(
    std::chrono::steady_clock::time_point deadline) const
{
    Lock lock(m_mutex);
    m_changed.wait_until(lock, deadline, [this] { return m_stopped || !m_ready.empty(); });
    if (m_stopped || m_ready.empty())
        return std::nullopt;
    return Partner(m_ready.front()->partner);
}

// ---- Time ----------------------------------------------------------------------------------

Deadlines::Id PelmarEndpoint::Impl::At(Clock::time_point time, Deadlines::Task task)
{
    const Deadlines::Id id = m_deadlines.Add(time, std::move(task));
    if (!m_armed_for || time < *m_armed_for) {
        m_armed_for = time;
        m_loop->Post([this] { RearmTimer(); });
    }
    return id;
}

Deadlines::Id PelmarEndpoint::Impl::After(milliseconds delay, Deadlines::Task task)
{
    return At(Clock::now() + delay, std::move(task));
}

void PelmarEndpoint::Impl::RearmTimer()
{
    if (m_timer == nullptr)
        return;
    const Lock lock(m_mutex);
    m_armed_for = m_deadlines.Next();
    if (!m_armed_for) {
        m_timer->Disarm();
        return;
    }
    const auto delay = std::chrono::ceil<milliseconds>(*m_armed_for - Clock::now());
    const milliseconds longest = std::chrono::hours(1);
    m_timer->Arm(std::min(delay, longest), [this] { RunDueDeadlines(); });
}

void PelmarEndpoint::Impl::RunDueDeadlines()
{
    {
        const Lock lock(m_mutex);
        while (const Deadlines::Task task = m_deadlines.TakeDue(Clock::now()))
            task();
    }
    RearmTimer();
}

// ---- Telling the application ---------------------------------------------------------------

// What is still owed when the endpoint is stopped is told by the one who stops it.
void PelmarEndpoint::Impl::Post(HandlerQueue::Task task)
{
    if (m_stopped)
        m_owed.push_back(std::move(task));
    else
        m_queue->Post(std::move(task));
}

void PelmarEndpoint::Impl::Report(Problem problem, const std::string& text,
                                  const std::string& subject)
{
    if (m_stopped || !m_reported.emplace(problem, subject).second)
        return;
    PELMAR_ERROR("Channel %s: %s\n\n", PELMAR_AT(__func__), m_channel.c_str(), text.c_str());
    Tell("OnProblem", m_handlers.problem, problem, text);
}

void PelmarEndpoint::Impl::ReportOver(Problem problem, const std::string& subject)
{
    m_reported.erase({problem, subject});
}
