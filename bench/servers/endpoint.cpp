// The endpoint. Its notifications come from a thread of the application.

#include <gio/gio.h>

#include "pelmar-endpoint.h"
#include "server.h"

int main(int argc, char** argv)
{
    const std::string name = server::ChannelOf(argc, argv);
    PelmarEndpoint::Options options;
    if (argc > 2 && std::string(argv[2]) == "client")
        options.role = PelmarEndpoint::Role::client;
    PelmarEndpoint::Handlers handlers;
    handlers.message = server::Answer;
    handlers.ready = [](const std::string& partner) {
        server::Say("ready " + server::Now() + " " + partner);
    };
    handlers.lost = [](const std::string& partner) { server::Say("lost " + partner); };
    server::Say("constructing " + server::Now());
    PelmarEndpoint endpoint(name, handlers, options);
    // The one connection that all of the process shares.
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr)
        server::Die(argv[0], "no bus");
    server::Say(std::string("serving ") + g_dbus_connection_get_unique_name(bus));
    g_object_unref(bus);
    for (;;) {
        const server::Order order = server::ReadOrder();
        if (order.kind == server::Order::Kind::end)
            return 0;
        for (unsigned i = 0; i < order.count; ++i)
            endpoint.Notify(order.data);
    }
}
