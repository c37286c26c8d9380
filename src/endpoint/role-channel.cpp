// Compiled once for each role; see role-channel.h. This is the only place outside the channel that
// reaches into it.

#include "role-channel.h"

#include <array>
#include <utility>

#include "byte-variant.h"
#include "channel-scheme.h"
#include "gio-handles.h"

#ifdef PELMAR_ROLE_CLIENT
inline namespace pelmar_client {
#endif

class PelmarChannelAccess::EndpointChannel final : public RoleChannel, private PelmarDbusLocal {
public:
    EndpointChannel(const std::string& channel, ChannelEvents& events)
        : PelmarDbusLocal(channel), m_events(events)
    {
        ExportOwnObject();
    }

    ~EndpointChannel() override
    {
        // The base class hands these ids to the wrong release call and leaves the object exported.
        for (guint* id :
             {&m_notification_watch_syn, &m_notification_watch_syn_ack, &m_notification_watch_ack})
            g_dbus_connection_signal_unsubscribe(m_connection, std::exchange(*id, 0));
        if (HasObject())
            g_dbus_connection_unregister_object(m_connection, m_reg_obj_id);
    }

    EndpointChannel(const EndpointChannel&) = delete;
    EndpointChannel& operator=(const EndpointChannel&) = delete;

    bool HasObject() const override { return m_reg_obj_id != 0; }

    HandshakeRepair::Wiring WiringOf(const std::string& partner) const override
    {
        const auto found = m_partner.find(partner);
        if (found == m_partner.end() || !IsWired(found->second))
            return HandshakeRepair::Wiring::none;
        return found->second.m_handshake == CONNECTION_HANDSHAKE_ACK
                   ? HandshakeRepair::Wiring::ready
                   : HandshakeRepair::Wiring::half;
    }

    std::vector<std::string> WiredPartners() const override
    {
        std::vector<std::string> partners;
        for (const auto& [name, partner] : m_partner) {
            if (IsWired(partner))
                partners.push_back(name);
        }
        return partners;
    }

    void TakePulseAsSeen(Stage stage, const std::string& partner) override
    {
        constexpr std::array<GDBusSignalCallback, ALL_STAGES.size()> handlers = {
            cb_SynNameOwnerChanged, cb_SynAckNameOwnerChanged, cb_AckNameOwnerChanged};
        const std::string name = PelmarChannelAccess::NamesOf(m_name).peer[IndexOf(stage)];
        const VariantPtr release(
            g_variant_ref_sink(g_variant_new("(sss)", name.c_str(), partner.c_str(), "")));
        handlers[IndexOf(stage)](m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "NameOwnerChanged", release.get(),
                                 Channel());
    }

    void TakeAsVanished(const std::string& partner) override
    {
        cb_PartnerNameVanished(m_connection, partner.c_str(), Channel());
    }

private:
    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        m_events.OnConnectionReady(state, partner);
    }

    void HandleNotification(std::vector<char>& data) override { m_events.OnNotification(data); }

    // The channel answers inside its callback; the endpoint's answers may come later.
    void ExportOwnObject()
    {
        if (!HasObject())
            return;
        static const GDBusInterfaceVTable vtable = {OnMethodCall, nullptr, nullptr, {}};
        g_dbus_connection_unregister_object(m_connection, m_reg_obj_id);
        m_reg_obj_id = g_dbus_connection_register_object(m_connection, m_object_name.c_str(),
                                                         m_introspection_data->interfaces[0],
                                                         &vtable, this, nullptr, nullptr);
    }

    static void OnMethodCall(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                             const gchar* /*object_path*/, const gchar* /*interface_name*/,
                             const gchar* /*method_name*/, GVariant* parameters,
                             GDBusMethodInvocation* invocation, gpointer user_data)
    {
        static_cast<EndpointChannel*>(user_data)->m_events.OnMessage(pelmar_bytes::From(parameters),
                                                                     invocation);
    }

    static bool IsWired(const ConnectionPartner& partner)
    {
        return partner.m_proxy_watch != 0 || partner.m_signal_id != 0;
    }

    gpointer Channel() { return static_cast<PelmarDbusLocal*>(this); }

    ChannelEvents& m_events;
};

namespace {

std::unique_ptr<RoleChannel> Open(const std::string& channel, ChannelEvents& events)
{
    return std::make_unique<PelmarChannelAccess::EndpointChannel>(channel, events);
}

}  // namespace

#ifdef PELMAR_ROLE_CLIENT
}

const ChannelRole CLIENT_CHANNEL = {HandshakeRepair::Role::client, PelmarChannelAccess::NamesOf,
                                    Open};
#else
const ChannelRole SERVICE_CHANNEL = {HandshakeRepair::Role::service, PelmarChannelAccess::NamesOf,
                                     Open};
#endif
