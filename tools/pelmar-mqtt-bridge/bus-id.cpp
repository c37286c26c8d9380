// On a connection of its own: the process's shared one belongs to the endpoint, and whoever else
// held it for a moment could keep it from being renewed.

#include "bus-id.h"

#include "gio-handles.h"

namespace {

constexpr int TIMEOUT_MS = 5000;

GObjectPtr<GDBusConnection> Connect(GError** error)
{
    const std::unique_ptr<gchar, decltype(&g_free)> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error), g_free);
    if (address == nullptr)
        return nullptr;
    constexpr auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    return GObjectPtr<GDBusConnection>(
        g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr, nullptr, error));
}

VariantPtr CallGetId(GDBusConnection* connection, GError** error)
{
    return VariantPtr(
        g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "GetId", nullptr, G_VARIANT_TYPE("(s)"),
                                    G_DBUS_CALL_FLAGS_NONE, TIMEOUT_MS, nullptr, error));
}

}  // namespace

std::optional<std::string> AskBusId(std::string& error)
{
    GError* raw_error = nullptr;
    const GObjectPtr<GDBusConnection> connection = Connect(&raw_error);
    const VariantPtr reply =
        connection != nullptr ? CallGetId(connection.get(), &raw_error) : nullptr;
    const ErrorPtr held(raw_error);
    if (reply == nullptr) {
        error = TextOf(held.get());
        return std::nullopt;
    }
    const gchar* id = nullptr;
    g_variant_get(reply.get(), "(&s)", &id);
    return id;
}
