#include "bus-id.h"

#include "gio-handles.h"

namespace {

constexpr int TIMEOUT_MS = 5000;

}  // namespace

std::optional<std::string> AskBusId(std::string& error)
{
    GError* raw_error = nullptr;
    const GObjectPtr<GDBusConnection> connection(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &raw_error));
    VariantPtr reply;
    if (connection != nullptr) {
        g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
        reply.reset(g_dbus_connection_call_sync(
            connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "GetId", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE,
            TIMEOUT_MS, nullptr, &raw_error));
    }
    const ErrorPtr held(raw_error);
    if (reply == nullptr) {
        error = TextOf(held.get());
        return std::nullopt;
    }
    const gchar* id = nullptr;
    g_variant_get(reply.get(), "(&s)", &id);
    return id;
}
