#include "bus.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "failure.h"

namespace {

using std::chrono::milliseconds;

constexpr const char* DAEMON = "org.freedesktop.DBus";
constexpr const char* DAEMON_PATH = "/org/freedesktop/DBus";
constexpr milliseconds DAEMON_PATIENCE{10000};

// The stock system bus lets a connection have 128 calls unanswered.
constexpr std::size_t MOST_CALLS_AT_ONCE = 64;

// The answers of a number of calls; outlives the wait for them when that ends early.
struct Round {
    std::vector<Answer> answers;
    std::size_t started = 0;
    std::size_t done = 0;
};

struct Pending {
    std::shared_ptr<Round> round;
    std::size_t index;
};

void cb_Answered(GObject* source, GAsyncResult* result, gpointer user_data)
{
    const std::unique_ptr<Pending> pending(static_cast<Pending*>(user_data));
    Answer& answer = pending->round->answers[pending->index];
    GError* error = nullptr;
    answer.value.reset(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
    answer.error.reset(error);
    ++pending->round->done;
}

// Where the wait for the connection ended early, nobody looks at it any more.
struct Connecting {
    GObjectPtr<GDBusConnection> connection;
    ErrorPtr error;
    bool done = false;
};

void cb_Connected(GObject* /*source*/, GAsyncResult* result, gpointer user_data)
{
    const std::unique_ptr<std::shared_ptr<Connecting>> connecting(
        static_cast<std::shared_ptr<Connecting>*>(user_data));
    GError* error = nullptr;
    (*connecting)->connection.reset(g_bus_get_finish(result, &error));
    // At once: GLib may say in this very round of the loop that the connection has gone already.
    if ((*connecting)->connection != nullptr)
        g_dbus_connection_set_exit_on_close((*connecting)->connection.get(), FALSE);
    (*connecting)->error.reset(error);
    (*connecting)->done = true;
}

}  // namespace

bool Is(const Answer& answer, GDBusError code)
{
    return answer.error != nullptr &&
           g_error_matches(answer.error.get(), G_DBUS_ERROR, code) != FALSE;
}

bool IsSilent(const Answer& answer)
{
    return answer.error != nullptr &&
           (g_error_matches(answer.error.get(), G_IO_ERROR, G_IO_ERROR_TIMED_OUT) != FALSE ||
            Is(answer, G_DBUS_ERROR_NO_REPLY) || Is(answer, G_DBUS_ERROR_TIMEOUT));
}

std::string TextOf(const Answer& answer)
{
    if (answer.error != nullptr)
        g_dbus_error_strip_remote_error(answer.error.get());
    return TextOf(answer.error.get());
}

std::string Bus::Address()
{
    GError* raw_error = nullptr;
    const std::unique_ptr<char, decltype(&g_free)> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &raw_error), g_free);
    const ErrorPtr error(raw_error);
    return address != nullptr ? address.get() : "";
}

Bus::Bus(EventQueue& queue, milliseconds timeout) : m_queue(queue)
{
    const auto connecting = std::make_shared<Connecting>();
    g_bus_get(G_BUS_TYPE_SYSTEM, nullptr, cb_Connected,
              new std::shared_ptr<Connecting>(connecting));
    const bool done =
        queue.Wait([&] { return connecting->done; }, EventQueue::Clock::now() + timeout);
    const std::string where = "the bus at " + Address() + " cannot be reached: ";
    if (!done)
        throw Failure(Exit::bus, where + "it does not answer");
    if (connecting->connection == nullptr)
        throw Failure(Exit::bus, where + TextOf(connecting->error.get()));
    m_connection = std::move(connecting->connection);
    m_closed_handler = g_signal_connect(m_connection.get(), "closed", G_CALLBACK(cb_Closed), this);
}

Bus::~Bus()
{
    if (m_subscription != 0)
        g_dbus_connection_signal_unsubscribe(m_connection.get(), m_subscription);
    if (m_closed_handler != 0)
        g_signal_handler_disconnect(m_connection.get(), m_closed_handler);
}

void Bus::cb_Closed(GDBusConnection* /*connection*/, gboolean /*by_peer*/, GError* /*error*/,
                    gpointer bus)
{
    static_cast<Bus*>(bus)->m_queue.Post(
        [] { throw Failure(Exit::bus, "the connection to the bus was lost"); });
}

std::string Bus::UniqueName() const
{
    const gchar* name = g_dbus_connection_get_unique_name(m_connection.get());
    return name != nullptr ? name : "";
}

BusCall Bus::DaemonCall(const std::string& method, GVariant* parameters)
{
    return {DAEMON, DAEMON_PATH, DAEMON, method, parameters};
}

std::vector<Answer> Bus::CallAll(const std::vector<BusCall>& calls, milliseconds timeout)
{
    const auto round = std::make_shared<Round>(Round());
    round->answers.resize(calls.size());
    const auto all_done = [&] {
        while (round->started < calls.size() && round->started - round->done < MOST_CALLS_AT_ONCE) {
            const BusCall& call = calls[round->started];
            g_dbus_connection_call(m_connection.get(), call.destination.c_str(), call.path.c_str(),
                                   call.interface.c_str(), call.method.c_str(), call.parameters,
                                   nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                   static_cast<int>(timeout.count()), nullptr, cb_Answered,
                                   new Pending{round, round->started});
            ++round->started;
        }
        return round->done == calls.size();
    };
    m_queue.Wait(all_done, std::nullopt);
    return std::move(round->answers);
}

Answer Bus::Call(const BusCall& call, milliseconds timeout)
{
    return std::move(CallAll({call}, timeout).front());
}

Answer Bus::CallDaemon(const std::string& method, GVariant* parameters)
{
    return Call(DaemonCall(method, parameters), DAEMON_PATIENCE);
}

void Bus::Settle(milliseconds timeout)
{
    const Answer answer = Call(DaemonCall("GetId"), timeout);
    if (answer.value == nullptr)
        throw Failure(Exit::bus, "the bus does not answer: " + TextOf(answer));
}

std::vector<std::string> Bus::Names()
{
    const Answer answer = CallDaemon("ListNames");
    if (answer.value == nullptr)
        throw Failure(Exit::bus, "the bus does not list its names: " + TextOf(answer));
    std::vector<std::string> names;
    GVariantIter* iterator = nullptr;
    const gchar* name = nullptr;
    g_variant_get(answer.value.get(), "(as)", &iterator);
    while (g_variant_iter_next(iterator, "&s", &name) != FALSE)
        names.emplace_back(name);
    g_variant_iter_free(iterator);
    return names;
}

std::optional<std::string> Bus::OwnerOf(const std::string& name)
{
    const Answer answer = CallDaemon("GetNameOwner", g_variant_new("(s)", name.c_str()));
    if (answer.value == nullptr)
        return std::nullopt;
    const gchar* owner = nullptr;
    g_variant_get(answer.value.get(), "(&s)", &owner);
    return std::string(owner);
}

Credentials Bus::CredentialsIn(const Answer& answer)
{
    Credentials credentials;
    if (answer.value == nullptr)
        return credentials;
    const VariantPtr table(g_variant_get_child_value(answer.value.get(), 0));
    guint32 number = 0;
    if (g_variant_lookup(table.get(), "UnixUserID", "u", &number) != FALSE)
        credentials.uid = static_cast<uid_t>(number);
    if (g_variant_lookup(table.get(), "ProcessID", "u", &number) != FALSE)
        credentials.pid = static_cast<pid_t>(number);
    return credentials;
}

Credentials Bus::CredentialsOf(const std::string& name)
{
    return CredentialsIn(
        CallDaemon("GetConnectionCredentials", g_variant_new("(s)", name.c_str())));
}

bool Bus::MayOwn(const std::string& name)
{
    constexpr guint32 do_not_queue = 4;
    const Answer answer =
        CallDaemon("RequestName", g_variant_new("(su)", name.c_str(), do_not_queue));
    if (answer.value != nullptr)
        CallDaemon("ReleaseName", g_variant_new("(s)", name.c_str()));
    return !Is(answer, G_DBUS_ERROR_ACCESS_DENIED);
}

void Bus::cb_OwnerChanged(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                          const gchar* /*path*/, const gchar* /*interface*/,
                          const gchar* /*signal*/, GVariant* parameters, gpointer bus)
{
    const gchar* name = nullptr;
    const gchar* old_owner = nullptr;
    const gchar* new_owner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, &old_owner, &new_owner);
    auto& self = *static_cast<Bus*>(bus);
    self.m_queue.Post(
        [&self, change = OwnerChange{name, old_owner, new_owner}] { self.m_seen(change); });
}

void Bus::WatchOwners(std::function<void(const OwnerChange& change)> seen)
{
    m_seen = std::move(seen);
    m_subscription = g_dbus_connection_signal_subscribe(
        m_connection.get(), DAEMON, DAEMON, "NameOwnerChanged", DAEMON_PATH, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, cb_OwnerChanged, this, nullptr);
    Settle(DAEMON_PATIENCE);
}
