#include "bus-actor.h"

#include <stdexcept>
#include <utility>

#include "names.h"

namespace {

const char* const DAEMON = "org.freedesktop.DBus";

constexpr const char* OBJECT =
    "<node><interface name='org.vaska.pelmar.DbusCommunication'><method name='Send'>"
    "<arg type='ay' name='data' direction='in'/><arg type='ay' name='response' direction='out'/>"
    "</method></interface></node>";

std::runtime_error Failure(const std::string& what, GError* error)
{
    const std::string text = what + ": " + (error != nullptr ? error->message : "no reason given");
    g_clear_error(&error);
    return std::runtime_error(text);
}

}  // namespace

BusActor::BusActor(const std::string& address)
{
    GError* error = nullptr;
    const auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    m_connection =
        g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error);
    if (m_connection == nullptr)
        throw Failure("an actor cannot connect to " + address, error);
    m_unique_name = g_dbus_connection_get_unique_name(m_connection);
}

BusActor::~BusActor()
{
    Leave();
    g_object_unref(m_connection);
}

void BusActor::Leave()
{
    g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
}

guint32 BusActor::CallDaemon(const char* method, GVariant* arguments)
{
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(m_connection, DAEMON, "/org/freedesktop/DBus",
                                                  DAEMON, method, arguments, G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply == nullptr)
        throw Failure(method, error);
    guint32 code = 0;
    g_variant_get(reply, "(u)", &code);
    g_variant_unref(reply);
    return code;
}

guint32 BusActor::Acquire(const std::string& name)
{
    constexpr guint32 do_not_queue = 4;
    return CallDaemon("RequestName", g_variant_new("(su)", name.c_str(), do_not_queue));
}

guint32 BusActor::Release(const std::string& name)
{
    return CallDaemon("ReleaseName", g_variant_new("(s)", name.c_str()));
}

void BusActor::Pulse(const std::string& name)
{
    if (Acquire(name) != 1)
        throw std::runtime_error("an actor cannot pulse " + name + ": somebody owns it");
    Release(name);
}

void BusActor::Serve(const std::string& channel, std::function<Bytes(const Bytes&)> answer)
{
    if (std::exchange(m_answer, std::move(answer)) != nullptr)
        return;
    static const GDBusInterfaceVTable vtable = {
        [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
           GVariant* arguments, GDBusMethodInvocation* invocation, gpointer actor) {
            const Bytes reply = static_cast<BusActor*>(actor)->m_answer(DataOf(arguments));
            g_dbus_method_invocation_return_value(invocation, Body(reply));
        },
        nullptr,
        nullptr,
        {}};
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(OBJECT, nullptr);
    GError* error = nullptr;
    const guint id =
        g_dbus_connection_register_object(m_connection, names::Path(channel).c_str(),
                                          node->interfaces[0], &vtable, this, nullptr, &error);
    g_dbus_node_info_unref(node);
    if (id == 0)
        throw Failure("an actor cannot export the object of " + channel, error);
}

std::shared_ptr<BusActor::Call> BusActor::Send(const std::string& destination,
                                               const std::string& channel, const Bytes& data)
{
    return CallMethod(destination, names::Path(channel), "Send", Body(data));
}

std::shared_ptr<BusActor::Call> BusActor::CallMethod(const std::string& destination,
                                                     const std::string& path,
                                                     const std::string& method, GVariant* arguments)
{
    auto call = std::make_shared<Call>();
    const auto finish = [](GObject* connection, GAsyncResult* result, gpointer user_data) {
        const std::unique_ptr<std::shared_ptr<Call>> held(
            static_cast<std::shared_ptr<Call>*>(user_data));
        GError* error = nullptr;
        GVariant* reply =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
        if (reply != nullptr) {
            (*held)->reply = DataOf(reply);
            g_variant_unref(reply);
            return;
        }
        gchar* name = g_dbus_error_get_remote_error(error);
        (*held)->error = name != nullptr ? name : error->message;
        g_free(name);
        g_error_free(error);
    };
    constexpr gint no_timeout = G_MAXINT;  // who waits for the call has a deadline
    g_dbus_connection_call(m_connection, destination.c_str(), path.c_str(),
                           names::INTERFACE.c_str(), method.c_str(), arguments,
                           G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NONE, no_timeout, nullptr,
                           finish, new std::shared_ptr<Call>(call));
    return call;
}

void BusActor::Ask(const std::string& destination, const std::string& channel)
{
    const auto forget = [](GObject* connection, GAsyncResult* result, gpointer) {
        GVariant* reply =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr);
        if (reply != nullptr)
            g_variant_unref(reply);
    };
    g_dbus_connection_call(m_connection, destination.c_str(), names::Path(channel).c_str(),
                           "org.freedesktop.DBus.Properties", "GetAll",
                           g_variant_new("(s)", names::INTERFACE.c_str()), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, forget, nullptr);
}

void BusActor::Emit(const std::string& destination, const std::string& path,
                    const std::string& member, GVariant* body)
{
    GError* error = nullptr;
    if (g_dbus_connection_emit_signal(
            m_connection, destination.empty() ? nullptr : destination.c_str(), path.c_str(),
            names::INTERFACE.c_str(), member.c_str(), body, &error) == FALSE)
        throw Failure("an actor cannot emit " + member, error);
}

void BusActor::Listen(const std::string& channel)
{
    const auto hear = [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                         GVariant* body, gpointer actor) {
        static_cast<BusActor*>(actor)->m_heard.push_back(DataOf(body));
    };
    g_dbus_connection_signal_subscribe(m_connection, nullptr, names::INTERFACE.c_str(),
                                       "SendSignal", names::Path(channel).c_str(), nullptr,
                                       G_DBUS_SIGNAL_FLAGS_NONE, hear, this, nullptr);
}

std::shared_ptr<std::vector<std::string>> BusActor::WatchOwner(const std::string& name)
{
    using Changes = std::shared_ptr<std::vector<std::string>>;
    const auto note = [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                         GVariant* body, gpointer changes) {
        const gchar* old_owner = nullptr;
        const gchar* new_owner = nullptr;
        g_variant_get(body, "(&s&s&s)", nullptr, &old_owner, &new_owner);
        (*static_cast<Changes*>(changes))->push_back(std::string(old_owner) + "=>" + new_owner);
    };
    auto changes = std::make_shared<std::vector<std::string>>();
    g_dbus_connection_signal_subscribe(m_connection, DAEMON, DAEMON, "NameOwnerChanged",
                                       "/org/freedesktop/DBus", name.c_str(),
                                       G_DBUS_SIGNAL_FLAGS_NONE, note, new Changes(changes),
                                       [](gpointer held) { delete static_cast<Changes*>(held); });
    Settle();
    return changes;
}

GVariant* BusActor::Body(const Bytes& data)
{
    return g_variant_new("(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(),
                                                            data.size(), sizeof(char)));
}

Bytes BusActor::DataOf(GVariant* body)
{
    GVariant* array = g_variant_get_child_value(body, 0);
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_variant_get_fixed_array(array, &size, 1));
    Bytes bytes(data, data + size);
    g_variant_unref(array);
    return bytes;
}
