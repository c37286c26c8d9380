// The channel, compiled for each role.

#include <glib-unix.h>

#include "pelmar-dbus-local.h"
#include "server.h"

namespace {

class Channel : public PelmarDbusLocal {
public:
    using PelmarDbusLocal::PelmarDbusLocal;

    server::Bytes HandleMessage(server::Bytes& data) override { return server::Answer(data); }
    void HandleNotification(server::Bytes& /*data*/) override {}
    void HandleConnectionReady(bool state, const std::string& partner) override
    {
        server::Say(state ? "ready " + server::Now() + " " + partner : "lost " + partner);
    }
};

struct Program {
    Channel channel;
    GMainLoop* loop;
};

gboolean Obey(gint /*descriptor*/, GIOCondition /*condition*/, gpointer user_data)
{
    auto& program = *static_cast<Program*>(user_data);
    server::Order order = server::ReadOrder();
    for (unsigned i = 0; i < order.count; ++i)
        program.channel.SendNotification(order.data);
    if (order.kind == server::Order::Kind::end)
        g_main_loop_quit(program.loop);
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string name = server::ChannelOf(argc, argv);
    server::Say("constructing " + server::Now());
    Program program{Channel(name), g_main_loop_new(nullptr, FALSE)};
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr)
        server::Die(argv[0], "no bus");
    server::Say(std::string("serving ") + g_dbus_connection_get_unique_name(bus));
    g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), Obey, &program);
    g_main_loop_run(program.loop);
    g_main_loop_unref(program.loop);
    g_object_unref(bus);
}
