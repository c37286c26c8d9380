// The channel: construction and teardown, the name pulses, the handshake stages, and the traffic.
//
// It stores and reports nothing beyond the partner table, starts no thread, repairs no lost pulse
// and checks no id that GIO returns. Peers and readers of its log rely on the order of its bus
// calls and of its log lines, so both are fixed: change neither without changing the other end.

#include "pelmar-dbus-local.h"

#include <iostream>
#include <utility>

#define PELMAR_LOG_FILE "pelmar-dbus-local.cpp"
#include "byte-variant.h"
#include "log-lines.h"

#ifdef PELMAR_ROLE_CLIENT
inline namespace pelmar_client {
#endif

const char* const PelmarDbusLocal::INTERFACE_XML =
    "<node>"
    "  <interface name='org.vaska.pelmar.DbusCommunication'>"
    "    <method name='Send'>"
    "      <arg type='ay' name='data' direction='in'/>"
    "      <arg type='ay' name='response' direction='out'/>"
    "    </method>"
    "  </interface>"
    "</node>";

const GDBusInterfaceVTable PelmarDbusLocal::m_vtable = {cb_MethodCall, nullptr, nullptr, {}};

namespace {

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";
constexpr const char* BUS_INTERFACE = "org.freedesktop.DBus";

// The answer to RequestName that makes this connection the owner.
constexpr guint32 PRIMARY_OWNER = 1;

// Fail instead of queueing: a queued pulse would come at any later time.
constexpr guint32 DO_NOT_QUEUE = 4;

// One NameOwnerChanged signal. The name is only logged: the subscription's arg0 filter chose it.
struct OwnerChange {
    explicit OwnerChange(GVariant* parameters)
    {
        const gchar* name = nullptr;
        const gchar* old_owner = nullptr;
        const gchar* new_owner = nullptr;
        g_variant_get(parameters, "(&s&s&s)", &name, &old_owner, &new_owner);
        broadcastName = name;
        oldOwner = old_owner;
        newOwner = new_owner;
    }

    std::string broadcastName;
    std::string oldOwner;
    std::string newOwner;
};

bool IsDeliverable(GDBusConnection* connection, gpointer user_data, const char* function)
{
    if (connection != nullptr && user_data != nullptr)
        return true;
    PELMAR_ERROR("Empty user_data or connection not valid.\n\n", PELMAR_AT(function));
    return false;
}

GVariant* CallBus(GDBusConnection* connection, const char* method, GVariant* parameters,
                  GError** error)
{
    return g_dbus_connection_call_sync(connection, BUS_NAME, BUS_PATH, BUS_INTERFACE, method,
                                       parameters, G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
                                       -1, nullptr, error);
}

// The record stays where it is: destroying it would release nothing.
void ReleasePartner(GDBusConnection* connection, ConnectionPartner& partner)
{
    if (partner.m_proxy_watch != 0) {
        g_bus_unwatch_name(partner.m_proxy_watch);
        partner.m_proxy_watch = 0;
    }
    if (partner.m_proxy != nullptr) {
        g_object_unref(partner.m_proxy);
        partner.m_proxy = nullptr;
    }
    if (partner.m_signal_id != 0) {
        g_dbus_connection_signal_unsubscribe(connection, partner.m_signal_id);
        partner.m_signal_id = 0;
    }
}

void WriteLine(const std::vector<char>& data)
{
    for (const char byte : data)
        std::cout.put(byte);
    std::cout.put('\n').flush();
}

}  // namespace

// ---- Construction and teardown -------------------------------------------------------------

PelmarDbusLocal::PelmarDbusLocal(std::string name) : m_name(std::move(name))
{
    PELMAR_DEBUG("Constructor\n\n", PELMAR_AT(__func__));
    // Does nothing since GLib 2.36; older ones need it.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    g_type_init();
    G_GNUC_END_IGNORE_DEPRECATIONS

    m_introspection_data = g_dbus_node_info_new_for_xml(INTERFACE_XML, nullptr);
    PELMAR_DEBUG("XML parsed\n\n", PELMAR_AT(__func__));
    m_object_name = std::string(PELMAR_DBUS_OBJ_NAME) + "/" + m_name;

    if (!Connect(__func__))
        return;
    RegisterObject(__func__);

    const std::string notification_name = BaseName();
    PELMAR_DEBUG("Monitoring %s name waiting for communication partner\n\n", PELMAR_AT(__func__),
                 notification_name.c_str());
    m_notification_watch_syn = WatchStage(PELMAR_DBUS_SYN_SUFFIX, cb_SynNameOwnerChanged);
    m_notification_watch_syn_ack = WatchStage(PELMAR_DBUS_SYNACK_SUFFIX, cb_SynAckNameOwnerChanged);
    m_notification_watch_ack = WatchStage(PELMAR_DBUS_ACK_SUFFIX, cb_AckNameOwnerChanged);

    PELMAR_DEBUG("Notify others using name %s\n\n", PELMAR_AT(__func__), notification_name.c_str());
    m_handshake = CONNECTION_HANDSHAKE_SYN;
    std::string broadcast_n_syn = notification_name + BROADCAST_PREFIX + PELMAR_DBUS_SYN_SUFFIX;
    BroadcastName(broadcast_n_syn);
}

bool PelmarDbusLocal::Connect(const char* function)
{
    PELMAR_DEBUG("Getting connection to SYSTEM_BUS\n\n", PELMAR_AT(function));
    GError* error = nullptr;
    m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (error != nullptr) {
        PELMAR_ERROR("Error while connecting to system bus [%d] %s\n\n", PELMAR_AT(function),
                     error->code, error->message);
        g_error_free(error);
        return false;
    }
    if (m_connection == nullptr) {
        PELMAR_ERROR("Error while connecting to system bus [%d] %s\n\n", PELMAR_AT(function), 0,
                     "no connection and no reason given");
        return false;
    }
    const gchar* unique_name = g_dbus_connection_get_unique_name(m_connection);
    if (unique_name != nullptr)
        m_public_dbus_name = unique_name;
    PELMAR_DEBUG("Working with unique name %s\n\n", PELMAR_AT(function),
                 m_public_dbus_name.c_str());
    return true;
}

void PelmarDbusLocal::RegisterObject(const char* function)
{
    PELMAR_DEBUG("Registering Object and Interface on path %s\n\n", PELMAR_AT(function),
                 m_object_name.c_str());
    GError* error = nullptr;
    m_reg_obj_id = g_dbus_connection_register_object(m_connection, m_object_name.c_str(),
                                                     m_introspection_data->interfaces[0], &m_vtable,
                                                     this, nullptr, &error);
    if (error != nullptr) {
        PELMAR_ERROR("Error while registering object [%d] %s\n\n", PELMAR_AT(function), error->code,
                     error->message);
        g_error_free(error);
    }
}

std::string PelmarDbusLocal::BaseName() const
{
    return std::string(PELMAR_DBUS_PREFIX) + "." + m_name;
}

guint PelmarDbusLocal::WatchStage(const char* suffix, GDBusSignalCallback handler)
{
    const std::string name = BaseName() + LISTEN_PREFIX + suffix;
    return g_dbus_connection_signal_subscribe(m_connection, BUS_NAME, BUS_INTERFACE,
                                              "NameOwnerChanged", BUS_PATH, name.c_str(),
                                              G_DBUS_SIGNAL_FLAGS_NONE, handler, this, nullptr);
}

PelmarDbusLocal::~PelmarDbusLocal()
{
    m_handshake = CONNECTION_NOT_STARTED;
    if (m_owner_id != 0) {
        g_bus_unown_name(m_owner_id);
        m_owner_id = 0;
    }
    // The ids are those of subscriptions, and are released as name watches on purpose: see the
    // destructor's description.
    for (guint* id :
         {&m_notification_watch_syn, &m_notification_watch_syn_ack, &m_notification_watch_ack}) {
        if (*id != 0) {
            g_bus_unwatch_name(*id);
            *id = 0;
        }
    }
    for (auto& entry : m_partner)
        ReleasePartner(m_connection, entry.second);
    m_partner.clear();
    if (m_introspection_data != nullptr) {
        g_dbus_node_info_unref(m_introspection_data);
        m_introspection_data = nullptr;
    }
    if (m_connection != nullptr) {
        g_object_unref(m_connection);
        m_connection = nullptr;
    }
}

// ---- Name pulse ----------------------------------------------------------------------------

void PelmarDbusLocal::BroadcastName(std::string& notification_name)
{
    PELMAR_DEBUG("BroadcastName %s Public unique name %s\n\n", PELMAR_AT(__func__),
                 notification_name.c_str(), m_public_dbus_name.c_str());
    GError* error = nullptr;
    GVariant* reply =
        CallBus(m_connection, "RequestName",
                g_variant_new("(su)", notification_name.c_str(), DO_NOT_QUEUE), &error);
    if (error != nullptr) {
        PELMAR_ERROR("Error during request name call [%d] %s\n\n", PELMAR_AT(__func__), error->code,
                     error->message);
        g_error_free(error);
        error = nullptr;
    }
    if (reply == nullptr) {
        PELMAR_ERROR("Cannot get response for name request\n\n", PELMAR_AT(__func__));
        return;
    }

    guint32 ret_code = 0;
    g_variant_get(reply, "(u)", &ret_code);
    g_variant_unref(reply);
    if (ret_code != PRIMARY_OWNER) {
        PELMAR_ERROR("Cannot own name due to return code = %d\n\n", PELMAR_AT(__func__),
                     static_cast<int>(ret_code));
        return;
    }

    PELMAR_DEBUG("Become primary owner for name. Releasing it.\n\n", PELMAR_AT(__func__));
    reply = CallBus(m_connection, "ReleaseName", g_variant_new("(s)", notification_name.c_str()),
                    &error);
    if (reply != nullptr)
        g_variant_unref(reply);
    else  // the error stays unread and is not freed
        PELMAR_ERROR("Release failed due to empty response.\n\n", PELMAR_AT(__func__));
}

// ---- Handshake -----------------------------------------------------------------------------

void PelmarDbusLocal::cb_SynNameOwnerChanged(GDBusConnection* connection,
                                             const gchar* /*sender_name*/,
                                             const gchar* /*object_path*/,
                                             const gchar* /*interface_name*/,
                                             const gchar* /*signal_name*/, GVariant* parameters,
                                             gpointer user_data)
{
    PELMAR_DEBUG("cb_SynNameOwnerChanged called\n", PELMAR_AT(__func__));
    if (!IsDeliverable(connection, user_data, __func__))
        return;
    const OwnerChange change(parameters);
    auto* pThis = static_cast<PelmarDbusLocal*>(user_data);
    const PTAutoLock lock_scope(pThis->m_mutex);
    PELMAR_DEBUG("cb_SynNameOwnerChanged %s %s from '%s' => '%s' \n\n", PELMAR_AT(__func__),
                 change.broadcastName.c_str(), pThis->m_public_dbus_name.c_str(),
                 change.oldOwner.c_str(), change.newOwner.c_str());
    if (!pThis->IsPartnersRelease(change.oldOwner, change.newOwner))
        return;
    if (!pThis->WirePartner(connection, change.oldOwner, __func__))
        return;
    pThis->BroadcastStage(PELMAR_DBUS_SYNACK_SUFFIX);
    pThis->m_partner[change.oldOwner].m_handshake = CONNECTION_HANDSHAKE_SYN_ACK;
}

void PelmarDbusLocal::cb_SynAckNameOwnerChanged(GDBusConnection* connection,
                                                const gchar* /*sender_name*/,
                                                const gchar* /*object_path*/,
                                                const gchar* /*interface_name*/,
                                                const gchar* /*signal_name*/, GVariant* parameters,
                                                gpointer user_data)
{
    PELMAR_DEBUG("cb_SynAckNameOwnerChanged called\n", PELMAR_AT(__func__));
    if (!IsDeliverable(connection, user_data, __func__))
        return;
    const OwnerChange change(parameters);
    auto* pThis = static_cast<PelmarDbusLocal*>(user_data);
    const PTAutoLock lock_scope(pThis->m_mutex);
    PELMAR_DEBUG("cb_SynAckNameOwnerChanged %s %s from '%s' => '%s' \n\n", PELMAR_AT(__func__),
                 change.broadcastName.c_str(), pThis->m_public_dbus_name.c_str(),
                 change.oldOwner.c_str(), change.newOwner.c_str());
    if (!pThis->IsPartnersRelease(change.oldOwner, change.newOwner))
        return;
    if (!pThis->WirePartner(connection, change.oldOwner, __func__))
        return;
    pThis->BroadcastStage(PELMAR_DBUS_ACK_SUFFIX);
    pThis->m_partner[change.oldOwner].m_handshake = CONNECTION_HANDSHAKE_ACK;
    pThis->HandleConnectionReady(true, change.oldOwner);
}

void PelmarDbusLocal::cb_AckNameOwnerChanged(GDBusConnection* connection,
                                             const gchar* /*sender_name*/,
                                             const gchar* /*object_path*/,
                                             const gchar* /*interface_name*/,
                                             const gchar* /*signal_name*/, GVariant* parameters,
                                             gpointer user_data)
{
    PELMAR_DEBUG("cb_AckNameOwnerChanged called\n", PELMAR_AT(__func__));
    if (!IsDeliverable(connection, user_data, __func__))
        return;
    const OwnerChange change(parameters);
    auto* pThis = static_cast<PelmarDbusLocal*>(user_data);
    const PTAutoLock lock_scope(pThis->m_mutex);
    PELMAR_DEBUG("cb_AckNameOwnerChanged %s %s from '%s' => '%s' \n\n", PELMAR_AT(__func__),
                 change.broadcastName.c_str(), pThis->m_public_dbus_name.c_str(),
                 change.oldOwner.c_str(), change.newOwner.c_str());
    if (!pThis->IsPartnersRelease(change.oldOwner, change.newOwner))
        return;
    if (pThis->m_partner[change.oldOwner].m_proxy_watch != 0 &&
        pThis->m_partner[change.oldOwner].m_signal_id != 0) {
        pThis->m_partner[change.oldOwner].m_handshake = CONNECTION_HANDSHAKE_ACK;
        pThis->HandleConnectionReady(true, change.oldOwner);
    } else {
        // Log readers know the text, although what it means here is: not wired up.
        PELMAR_DEBUG("Owner %s already exists\n", PELMAR_AT(__func__), change.oldOwner.c_str());
    }
}

// A pulse is an acquisition and a release; only the release, and not the channel's own, counts.
bool PelmarDbusLocal::IsPartnersRelease(const std::string& oldOwner,
                                        const std::string& newOwner) const
{
    return newOwner.empty() && m_public_dbus_name != oldOwner;
}

// False when the partner is wired up already. A record that a look-up left behind counts as new.
bool PelmarDbusLocal::WirePartner(GDBusConnection* connection, const std::string& oldOwner,
                                  const char* function)
{
    if (m_partner[oldOwner].m_proxy_watch != 0 || m_partner[oldOwner].m_signal_id != 0) {
        PELMAR_DEBUG("Owner %s already exists\n", PELMAR_AT(function), oldOwner.c_str());
        return false;
    }
    PELMAR_DEBUG("Monitor unique name %s\n\n", PELMAR_AT(function), oldOwner.c_str());
    m_partner[oldOwner].m_proxy_watch =
        g_bus_watch_name_on_connection(connection, oldOwner.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                       nullptr, cb_PartnerNameVanished, this, nullptr);
    PELMAR_DEBUG("Partner is available and has unique name %s\n\n", PELMAR_AT(function),
                 oldOwner.c_str());
    m_partner[oldOwner].m_partner_dbus_name = oldOwner;
    CreateProxy(connection, m_partner[oldOwner], function);
    PELMAR_DEBUG("Subscribe for signals from %s on object %s.\n\n", PELMAR_AT(function),
                 m_partner[oldOwner].m_partner_dbus_name.c_str(), m_object_name.c_str());
    // Every signal of the interface, whatever its name, is a notification.
    m_partner[oldOwner].m_signal_id = g_dbus_connection_signal_subscribe(
        connection, m_partner[oldOwner].m_partner_dbus_name.c_str(), PELMAR_DBUS_OBJ_IFACE, nullptr,
        m_object_name.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE, cb_SignalCall, this, nullptr);
    return true;
}

// A partner without its object is a partner all the same: it is only logged.
void PelmarDbusLocal::CreateProxy(GDBusConnection* connection, ConnectionPartner& partner,
                                  const char* function)
{
    GError* error = nullptr;
    PELMAR_DEBUG("Create proxy for %s on obj %s\n\n", PELMAR_AT(function),
                 partner.m_partner_dbus_name.c_str(), m_object_name.c_str());
    partner.m_proxy =
        g_dbus_proxy_new_sync(connection, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES, nullptr,
                              partner.m_partner_dbus_name.c_str(), m_object_name.c_str(),
                              PELMAR_DBUS_OBJ_IFACE, nullptr, &error);
    if (error != nullptr) {
        PELMAR_ERROR("Error while registering proxy  %s\n\n", PELMAR_AT(function), error->message);
        g_error_free(error);
    }
}

void PelmarDbusLocal::BroadcastStage(const char* suffix)
{
    std::string notification_name = BaseName() + BROADCAST_PREFIX + suffix;
    BroadcastName(notification_name);
}

void PelmarDbusLocal::cb_PartnerNameVanished(GDBusConnection* connection, const gchar* name,
                                             gpointer user_data)
{
    PELMAR_DEBUG("cb_PartnerNameVanished name=%s\n\n", PELMAR_AT(__func__), name);
    if (!IsDeliverable(connection, user_data, __func__))
        return;
    auto* pThis = static_cast<PelmarDbusLocal*>(user_data);
    const PTAutoLock lock_scope(pThis->m_mutex);
    if (pThis->m_partner[name].m_partner_dbus_name == name) {
        PELMAR_DEBUG("Connection lost with partner id=%s\n\n", PELMAR_AT(__func__), name);
        pThis->m_partner[name].m_partner_dbus_name.clear();
        // Whatever stage it had reached, and while its resources still live.
        pThis->HandleConnectionReady(false, std::string(name));
        if (pThis->m_partner[name].m_proxy_watch != 0)
            PELMAR_DEBUG("Stop watching old partner messages.\n\n", PELMAR_AT(__func__));
        ReleasePartner(connection, pThis->m_partner[name]);
        pThis->m_partner[name].m_handshake = CONNECTION_NOT_STARTED;
    }
    PELMAR_DEBUG("Removed %s connection owner from m_partner\n", PELMAR_AT(__func__), name);
    pThis->m_partner.erase(name);
}

// ---- Inbound traffic -----------------------------------------------------------------------

void PelmarDbusLocal::cb_MethodCall(GDBusConnection* connection, const gchar* sender,
                                    const gchar* object_path, const gchar* interface_name,
                                    const gchar* method_name, GVariant* parameters,
                                    GDBusMethodInvocation* invocation, gpointer user_data)
{
    PELMAR_DEBUG("cb_MethodCall sender=%s obj_path=%s iface_name=%s method_name=%s\n\n",
                 PELMAR_AT(__func__), sender, object_path, interface_name, method_name);
    if (!IsDeliverable(connection, user_data, __func__))
        return;
    auto* pThis = static_cast<PelmarDbusLocal*>(user_data);
    if (pThis->m_object_name != object_path)
        return;
    std::vector<char> param_bytes = ConvertBytes(parameters);
    std::vector<char> result = pThis->HandleMessage(param_bytes);
    g_dbus_method_invocation_return_value(invocation, pelmar_bytes::Take(std::move(result)));
}

void PelmarDbusLocal::cb_SignalCall(GDBusConnection* connection, const gchar* sender_name,
                                    const gchar* object_path, const gchar* interface_name,
                                    const gchar* signal_name, GVariant* parameters,
                                    gpointer user_data)
{
    PELMAR_DEBUG("cb_SignalCall sender=%s obj_path=%s iface_name=%s signal_name=%s\n\n",
                 PELMAR_AT(__func__), sender_name, object_path, interface_name, signal_name);
    if (!IsDeliverable(connection, user_data, __func__))
        return;
    auto* pThis = static_cast<PelmarDbusLocal*>(user_data);
    if (pThis->m_object_name != object_path)
        return;
    // GIO checks a call's arguments against the introspection data, but no signal's body.
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ay)")) == FALSE) {
        PELMAR_ERROR("Signal from %s dropped: its body is %s and not (ay)\n\n", PELMAR_AT(__func__),
                     sender_name, g_variant_get_type_string(parameters));
        return;
    }
    std::vector<char> param_bytes = ConvertBytes(parameters);
    pThis->HandleNotification(param_bytes);
}

std::vector<char> PelmarDbusLocal::ConvertBytes(GVariant* parameters)
{
    return pelmar_bytes::From(parameters);
}

GVariant* PelmarDbusLocal::ConvertBytes(std::vector<char>& data)
{
    return pelmar_bytes::Copy(data);
}

std::vector<char> PelmarDbusLocal::HandleMessage(std::vector<char>& data)
{
    const std::string dbg_str(data.begin(), data.end());
    PELMAR_DEBUG("Default handler - HandleMessage = %s\n\n", PELMAR_AT(__func__), dbg_str.c_str());
    WriteLine(data);
    const std::string str = "Default handler from : " + m_public_dbus_name;
    std::vector<char> ret_obj(str.begin(), str.end());
    return ret_obj;
}

void PelmarDbusLocal::HandleNotification(std::vector<char>& data)
{
    const std::string dbg_str(data.begin(), data.end());
    PELMAR_DEBUG("Default handler - HandleNotification = %s\n\n", PELMAR_AT(__func__),
                 dbg_str.c_str());
    WriteLine(data);
}

void PelmarDbusLocal::HandleConnectionReady(bool state, const std::string& /*partner*/)
{
    PELMAR_DEBUG("Default handler - HandleConnectionReady = %d\n\n", PELMAR_AT(__func__),
                 state ? 1 : 0);
}

// ---- Outbound traffic ----------------------------------------------------------------------

std::vector<char> PelmarDbusLocal::SendMessage(std::vector<char>& /*data*/)
{
    PELMAR_DEBUG("Message sending is no supported!\n", PELMAR_AT(__func__));
    return {};
}

bool PelmarDbusLocal::IsConnectionReady(const std::string& owner)
{
    return m_partner[owner].m_handshake == CONNECTION_HANDSHAKE_ACK;
}

void PelmarDbusLocal::SendNotification(std::vector<char>& data, const std::string& owner)
{
    if (m_partner.find(owner) == m_partner.end()) {
        PELMAR_ERROR("Communication partner %s not found in m_partner map.\n\n",
                     PELMAR_AT(__func__), owner.c_str());
        return;
    }
    if (!IsConnectionReady(owner)) {
        PELMAR_ERROR("Connection not set.\n\n", PELMAR_AT(__func__));
        return;
    }
    if (m_partner[owner].m_signal_id == 0) {
        PELMAR_ERROR("SignalSubscription not ready\n\n", PELMAR_AT(__func__));
        return;
    }
    PELMAR_DEBUG("Sending signal with %d bytes\n\n", PELMAR_AT(__func__),
                 static_cast<int>(data.size()));
    GVariant* params = g_variant_ref(ConvertBytes(data));
    GError* error = nullptr;
    g_dbus_connection_emit_signal(m_connection, m_partner[owner].m_partner_dbus_name.c_str(),
                                  m_object_name.c_str(), PELMAR_DBUS_OBJ_IFACE,
                                  PELMAR_DBUS_SIG_NAME, params, &error);
    // GIO consumes the value unless it rejects an argument, such as the empty name of a partner
    // that is just being lost.
    if (g_variant_is_floating(params) != FALSE)
        g_variant_unref(params);
    g_variant_unref(params);
    if (error != nullptr) {
        PELMAR_ERROR("Error while sending signal [%d] %s\n\n", PELMAR_AT(__func__), error->code,
                     error->message);
        g_error_free(error);
    }
}

void PelmarDbusLocal::SendNotification(std::vector<char>& data)
{
    PELMAR_DEBUG("Number of partners to iterate is: %d\n\n", PELMAR_AT(__func__),
                 static_cast<int>(m_partner.size()));
    for (auto itr = m_partner.begin(); itr != m_partner.end(); ++itr) {
        PELMAR_DEBUG("Sending notification for partner: %s\n\n", PELMAR_AT(__func__),
                     itr->first.c_str());
        SendNotification(data, itr->first);
    }
}

#ifdef PELMAR_ROLE_CLIENT
}
#endif
