// GDBus, by way of the bus daemon: method calls, and signals to all who ask for them. The buffer of
// what is sent is handed over to GIO.

#include <gio/gio.h>

#include "gdbus-bytes.h"
#include "on-the-bus.h"

namespace {

using gdbus::HandOver;
using gdbus::Read;
using peer::Bytes;

constexpr const char* OBJECT =
    "<node><interface name='org.vaska.pelmar.Bench'><method name='Request'>"
    "<arg type='ay' direction='in'/><arg type='ay' direction='out'/></method></interface></node>";

void Check(GError* error)
{
    if (error != nullptr)
        throw std::runtime_error(error->message);
}

GDBusConnection* OpenBus()
{
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    Check(error);
    return bus;
}

GDBusConnection* OpenBusAs(const peer::Arguments& arguments)
{
    constexpr guint do_not_queue = 4;
    GError* error = nullptr;
    GDBusConnection* bus = OpenBus();
    GVariant* owner = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", peer::BusName(arguments).c_str(), do_not_queue), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    Check(error);
    g_variant_unref(owner);
    return bus;
}

void Loop()
{
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

void Reply(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
           GVariant* parameters, GDBusMethodInvocation* invocation, gpointer)
{
    Bytes data = Read(parameters);
    g_dbus_method_invocation_return_value(invocation, HandOver(peer::Answer(data)));
}

void Serve(const peer::Arguments& arguments)
{
    GDBusConnection* bus = OpenBusAs(arguments);
    const GDBusInterfaceVTable vtable{Reply, nullptr, nullptr, {}};
    GError* error = nullptr;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(OBJECT, &error);
    Check(error);
    g_dbus_connection_register_object(bus, peer::OBJECT_PATH, node->interfaces[0], &vtable, nullptr,
                                      nullptr, &error);
    Check(error);
    peer::Say("ready");
    Loop();
}

void Request(const peer::Arguments& arguments)
{
    GDBusConnection* bus = OpenBus();
    const std::string server = peer::BusName(arguments);
    peer::RunClient([&](Bytes& data) {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(
            bus, server.c_str(), peer::OBJECT_PATH, peer::INTERFACE, "Request",
            HandOver(std::move(data)), G_VARIANT_TYPE("(ay)"), G_DBUS_CALL_FLAGS_NONE, G_MAXINT,
            nullptr, &error);
        Check(error);
        data = Read(reply);
        g_variant_unref(reply);
    });
}

// Who is ready has its match rule, so nobody has to be waited for.
void Publish(const peer::Arguments& arguments)
{
    GDBusConnection* bus = OpenBusAs(arguments);
    peer::RunPublisher([](std::size_t /*receivers*/) {},
                       [bus](Bytes data) {
                           g_dbus_connection_emit_signal(bus, nullptr, peer::OBJECT_PATH,
                                                         peer::INTERFACE, "Notify",
                                                         HandOver(std::move(data)), nullptr);
                       },
                       [bus] { g_dbus_connection_flush_sync(bus, nullptr, nullptr); });
}

void CountOne(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
              GVariant* parameters, gpointer user_data)
{
    static_cast<peer::Tally*>(user_data)->Add(Read(parameters));
}

void Count(const peer::Arguments& arguments)
{
    GDBusConnection* bus = OpenBus();
    peer::Tally tally;
    g_dbus_connection_signal_subscribe(bus, peer::BusName(arguments).c_str(), peer::INTERFACE,
                                       "Notify", peer::OBJECT_PATH, nullptr,
                                       G_DBUS_SIGNAL_FLAGS_NONE, CountOne, &tally, nullptr);
    // The bus deals with what one connection sends in its order.
    GError* error = nullptr;
    GVariant* id = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    Check(error);
    g_variant_unref(id);
    peer::Say("ready");
    Loop();
}

}  // namespace

int main(int argc, char** argv)
{
    return peer::Run(
        argc, argv,
        {{"server", Serve}, {"client", Request}, {"publisher", Publish}, {"receiver", Count}});
}
